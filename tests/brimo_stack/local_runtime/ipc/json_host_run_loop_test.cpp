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

// Hands out the scripted values, then end of input. What the real channel reports for bad
// frames, and what the loop makes of it, is tried end to end (e2e/host_protocol_test).
class ScriptedChannel final : public ipc::IJsonLineChannel {
 public:
  std::deque<json> reads;
  std::vector<json> written;
  bool fail_writes = false;

  CommandResult ReadMessage(JsonHostReadResult& out) override {
    out.status = reads.empty() ? JsonHostReadStatus::kEndOfInput : JsonHostReadStatus::kValue;
    out.value = reads.empty() ? json(nullptr) : reads.front();
    if (!reads.empty()) reads.pop_front();
    return CommandResult::Success();
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
  std::vector<json> reads;
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

const char* kInternal = R"({"error":{"category":3,"code":0,"message":"internal host request failure"},"ok":false})";

// End of input, bad frames, write failures, shutdown and requests that are no object are met
// through the built host; these are the outcomes only a dispatch function can bring about.
INSTANTIATE_TEST_SUITE_P(
    Outcomes, RunLoop,
    ::testing::Values(
        LoopCase{"ContinueThenEof",
                 {{{"method", "m"}, {"sdk_call_id", "c"}, {"params", {1}}}, nullptr},
                 false,
                 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"c","method":"m","params":[1]},"type":"json"}]})",
                  R"({"ok":true,"outputs":[{"data":{"id":"","method":"","params":{}},"type":"json"}]})"}},
        LoopCase{"StopFailure", {{{"method", "abort"}}}, false, 1, {R"({"ok":true})"}},
        LoopCase{"StandardException", {{{"method", "throw"}}, {{"method", "m"}}}, false, 1, {kInternal}},
        LoopCase{"OtherException", {{{"method", "throw_int"}}}, false, 1, {kInternal}},
        LoopCase{"ParamsNullStays", {{{"method", "m"}, {"params", nullptr}}}, false, 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"","method":"m","params":null},"type":"json"}]})"}},
        LoopCase{"FailureGoesOn",
                 {{{"method", "fail"}}, {{"method", "fail_bare"}}},
                 false,
                 0,
                 {R"({"error":{"category":7,"code":1,"message":"bad"},"ok":false})", R"({"ok":false})"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RunLoopDispatch, EmptyDispatchCountsAsException) {
  ScriptedChannel channel;
  channel.reads.push_back({{"method", "m"}});
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
