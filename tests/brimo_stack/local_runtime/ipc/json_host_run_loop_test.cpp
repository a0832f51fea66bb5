// Every outcome of the request loop, over a scripted channel.
#include "brimo_stack/local_runtime/ipc/json_host_run_loop.h"

#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>

namespace brimo_stack::local_runtime {
namespace {

using ipc::JsonHostReadResult;
using ipc::JsonHostReadStatus;
using nlohmann::json;

struct ScriptedRead {
  JsonHostReadStatus status;
  json value;
};

class ScriptedChannel final : public ipc::IJsonLineChannel {
 public:
  std::deque<ScriptedRead> reads;
  std::vector<json> written;
  bool fail_writes = false;

  CommandResult ReadMessage(JsonHostReadResult& out) override {
    out.value = nullptr;
    if (reads.empty()) {
      out.status = JsonHostReadStatus::kEndOfInput;
      return CommandResult::Success();
    }
    ScriptedRead next = reads.front();
    reads.pop_front();
    out.status = next.status;
    switch (next.status) {
      case JsonHostReadStatus::kValue:
        out.value = next.value;
        return CommandResult::Success();
      case JsonHostReadStatus::kInvalidJson:
        return CommandResult::Failure(3, 0, "invalid json request");
      case JsonHostReadStatus::kTooLarge:
        return CommandResult::Failure(3, 0, "request exceeds the 16 MiB IPC frame limit");
      case JsonHostReadStatus::kReadFailed:
        return CommandResult::Failure(6, 5, "read host IPC request failed: x");
      default:
        return CommandResult::Success();
    }
  }

  CommandResult WriteMessage(const json& value) override {
    written.push_back(value);
    return fail_writes ? CommandResult::Failure(6, 32, "write host IPC response failed: Broken pipe")
                       : CommandResult::Success();
  }
};

JsonHostDispatchResult EchoDispatch(const JsonHostRequest& request) {
  if (request.method == "stop") return {CommandResult::Success(), JsonHostAction::kStopSuccess};
  if (request.method == "abort") return {CommandResult::Success(), JsonHostAction::kStopFailure};
  if (request.method == "throw") throw std::runtime_error("secret text");
  if (request.method == "throw_int") throw 7;
  if (request.method == "fail") return {CommandResult::Failure(7, 1, "bad"), JsonHostAction::kContinue};
  if (request.method == "fail_bare") {
    CommandResult bare;
    bare.ok = false;
    return {bare, JsonHostAction::kContinue};
  }
  return {MakeJsonOutputResult({{"method", request.method}, {"id", request.sdk_call_id}, {"params", request.params}}),
          JsonHostAction::kContinue};
}

struct LoopCase {
  const char* name;
  std::vector<ScriptedRead> reads;
  bool fail_writes;
  int exit_code;
  std::vector<std::string> responses;
};

class RunLoop : public ::testing::TestWithParam<LoopCase> {};

TEST_P(RunLoop, ExitCodeAndResponses) {
  const LoopCase& c = GetParam();
  ScriptedChannel channel;
  channel.reads.assign(c.reads.begin(), c.reads.end());
  channel.fail_writes = c.fail_writes;
  const int32_t code = RunJsonHostLoop(channel, {"test.rpc", true}, EchoDispatch);
  EXPECT_EQ(code, c.exit_code);
  std::vector<std::string> dumped;
  for (const auto& v : channel.written) dumped.push_back(v.dump());
  EXPECT_EQ(dumped, c.responses);
}

ScriptedRead Value(json v) { return {JsonHostReadStatus::kValue, std::move(v)}; }
ScriptedRead Status(JsonHostReadStatus s) { return {s, nullptr}; }

const char* kInternal = R"({"error":{"category":3,"code":0,"message":"internal host request failure"},"ok":false})";

INSTANTIATE_TEST_SUITE_P(
    Outcomes, RunLoop,
    ::testing::Values(
        LoopCase{"EndOfInput", {}, false, 0, {}},
        LoopCase{"ReadFailure", {Status(JsonHostReadStatus::kReadFailed)}, false, 2, {}},
        LoopCase{"TooLarge", {Status(JsonHostReadStatus::kTooLarge), Value({{"method", "x"}})}, false, 1, {}},
        LoopCase{"InvalidJson",
                 {Status(JsonHostReadStatus::kInvalidJson), Value({{"method", "x"}})},
                 false,
                 1,
                 {R"({"error":{"category":3,"code":0,"message":"invalid json request"},"ok":false})"}},
        LoopCase{"InvalidJsonWriteFails", {Status(JsonHostReadStatus::kInvalidJson)}, true, 3, {R"({"error":{"category":3,"code":0,"message":"invalid json request"},"ok":false})"}},
        LoopCase{"ContinueThenEof",
                 {Value({{"method", "m"}, {"sdk_call_id", "c"}, {"params", {1}}}), Value(nullptr)},
                 false,
                 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"c","method":"m","params":[1]},"type":"json"}]})",
                  R"({"ok":true,"outputs":[{"data":{"id":"","method":"","params":{}},"type":"json"}]})"}},
        LoopCase{"ContinueWriteFails", {Value({{"method", "m"}})}, true, 3, {R"({"ok":true,"outputs":[{"data":{"id":"","method":"m","params":{}},"type":"json"}]})"}},
        LoopCase{"StopSuccess", {Value({{"method", "stop"}}), Value({{"method", "m"}})}, false, 0, {R"({"ok":true})"}},
        LoopCase{"StopSuccessWriteFails", {Value({{"method", "stop"}})}, true, 3, {R"({"ok":true})"}},
        LoopCase{"StopFailure", {Value({{"method", "abort"}})}, false, 1, {R"({"ok":true})"}},
        LoopCase{"StandardException", {Value({{"method", "throw"}}), Value({{"method", "m"}})}, false, 1, {kInternal}},
        LoopCase{"OtherException", {Value({{"method", "throw_int"}})}, false, 1, {kInternal}},
        LoopCase{"NotARequest", {Value({1, 2})}, false, 1, {kInternal}},
        LoopCase{"MethodNotAString", {Value({{"method", 1}})}, false, 1, {kInternal}},
        LoopCase{"ParamsNullStays", {Value({{"method", "m"}, {"params", nullptr}})}, false, 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"","method":"m","params":null},"type":"json"}]})"}},
        LoopCase{"FailureGoesOn",
                 {Value({{"method", "fail"}}), Value({{"method", "fail_bare"}})},
                 false,
                 0,
                 {R"({"error":{"category":7,"code":1,"message":"bad"},"ok":false})", R"({"ok":false})"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RunLoopDispatch, EmptyDispatchCountsAsException) {
  ScriptedChannel channel;
  channel.reads.push_back(Value({{"method", "m"}}));
  EXPECT_EQ(RunJsonHostLoop(channel, {"test.rpc", false}, JsonHostDispatchFunction()), 1);
  ASSERT_EQ(channel.written.size(), 1u);
  EXPECT_EQ(channel.written[0].dump(), kInternal);
}

TEST(ResponseEnvelope, OutputShapesPrintWithSortedKeys) {
  CommandResult result;
  result.outputs.emplace();
  result.outputs->push_back(TypeOnlyOutput{"t"});
  result.outputs->push_back(TextOutput{"t", "hello"});
  result.outputs->push_back(MimeDataOutput{"t", "text/plain", "abc"});
  EXPECT_EQ(BuildResponseEnvelope(result).dump(),
            R"({"ok":true,"outputs":[{"type":"t"},{"text":"hello","type":"t"},{"data":"abc","mime_type":"text/plain","type":"t"}]})");
  result.outputs->clear();
  EXPECT_EQ(BuildResponseEnvelope(result).dump(), R"({"ok":true})");
}

}  // namespace
}  // namespace brimo_stack::local_runtime
