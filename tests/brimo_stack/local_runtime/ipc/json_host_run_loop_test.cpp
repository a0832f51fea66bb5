// Every outcome of the request loop, over a scripted channel.
#include "brimo_stack/local_runtime/ipc/json_host_run_loop.h"

#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>
#include <string>
#include <utility>

namespace brimo_stack::local_runtime {
namespace {

using ipc::JsonHostReadResult;
using ipc::JsonHostReadStatus;
using nlohmann::json;

// Hands out the scripted values, then end of input; each write takes the next scripted outcome
// (success once they run out) and is recorded whatever it was. What the real channel reports for
// bad frames, and what the loop makes of it, is tried end to end (e2e/host_protocol_test).
class ScriptedChannel final : public ipc::IJsonLineChannel {
 public:
  std::deque<json> reads;
  std::deque<CommandResult> write_outcomes;
  std::vector<json> written;

  CommandResult ReadMessage(JsonHostReadResult& out) override {
    out.status = reads.empty() ? JsonHostReadStatus::kEndOfInput : JsonHostReadStatus::kValue;
    out.value = reads.empty() ? json(nullptr) : reads.front();
    if (!reads.empty()) reads.pop_front();
    return CommandResult::Success();
  }

  CommandResult WriteMessage(const json& value) override {
    written.push_back(value);
    if (write_outcomes.empty()) return CommandResult::Success();
    CommandResult outcome = std::move(write_outcomes.front());
    write_outcomes.pop_front();
    return outcome;
  }
};

const CommandResult kBrokenPipe = CommandResult::Failure(6, 32, "write host IPC response failed: Broken pipe");
const CommandResult kOverBudget = CommandResult::Failure(3, 0, "response exceeds the IPC payload budget",
                                                         FailureReason::kResponseTooLarge);
const CommandResult kOverFrame = CommandResult::Failure(3, 0, "response exceeds the 16 MiB IPC frame limit",
                                                        FailureReason::kResponseTooLarge);

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
  std::vector<CommandResult> write_outcomes;
  int exit_code;
  std::vector<std::string> responses;
};

class RunLoop : public ::testing::TestWithParam<LoopCase> {};

TEST_P(RunLoop, ExitCodeAndResponses) {
  const LoopCase& c = GetParam();
  ScriptedChannel channel;
  channel.reads.assign(c.reads.begin(), c.reads.end());
  channel.write_outcomes.assign(c.write_outcomes.begin(), c.write_outcomes.end());
  const int32_t code = RunJsonHostLoop(channel, {"test.rpc", true}, EchoDispatch);
  EXPECT_EQ(code, c.exit_code);
  std::vector<std::string> dumped;
  for (const auto& v : channel.written) dumped.push_back(v.dump());
  EXPECT_EQ(dumped, c.responses);
}

const char* kInternal = R"({"error":{"category":3,"code":0,"message":"internal host request failure"},"ok":false})";
const char* kEchoM = R"({"ok":true,"outputs":[{"data":{"id":"","method":"m","params":{}},"type":"json"}]})";
const char* kBad = R"({"error":{"category":7,"code":1,"message":"bad"},"ok":false})";
const char* kBudgetAnswer =
    R"({"error":{"category":3,"code":0,"message":"response exceeds the IPC payload budget"},"ok":false})";
const char* kFrameAnswer =
    R"({"error":{"category":3,"code":0,"message":"response exceeds the 16 MiB IPC frame limit"},"ok":false})";

// End of input, bad frames, write failures, shutdown and requests that are no object are met
// through the built host; these are the outcomes only a dispatch function can bring about.
INSTANTIATE_TEST_SUITE_P(
    Outcomes, RunLoop,
    ::testing::Values(
        LoopCase{"ContinueThenEof",
                 {{{"method", "m"}, {"sdk_call_id", "c"}, {"params", {1}}}, nullptr},
                 {},
                 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"c","method":"m","params":[1]},"type":"json"}]})",
                  R"({"ok":true,"outputs":[{"data":{"id":"","method":"","params":{}},"type":"json"}]})"}},
        LoopCase{"StopFailure", {{{"method", "abort"}}}, {}, 1, {R"({"ok":true})"}},
        LoopCase{"StandardException", {{{"method", "throw"}}, {{"method", "m"}}}, {}, 1, {kInternal}},
        LoopCase{"OtherException", {{{"method", "throw_int"}}}, {}, 1, {kInternal}},
        LoopCase{"ParamsNullStays", {{{"method", "m"}, {"params", nullptr}}}, {}, 0,
                 {R"({"ok":true,"outputs":[{"data":{"id":"","method":"m","params":null},"type":"json"}]})"}},
        LoopCase{"FailureGoesOn",
                 {{{"method", "fail"}}, {{"method", "fail_bare"}}},
                 {},
                 0,
                 {kBad, R"({"ok":false})"}},
        // A response refused by its size is answered with the refusal, and the loop goes on or
        // stops as the request asked; a failed answer to the refusal ends it.
        LoopCase{"OverBudgetIsAnsweredAndGoesOn", {{{"method", "m"}}, {{"method", "fail"}}}, {kOverBudget}, 0,
                 {kEchoM, kBudgetAnswer, kBad}},
        LoopCase{"OverFrameLimitIsAnsweredAndGoesOn", {{{"method", "m"}}, {{"method", "fail"}}}, {kOverFrame}, 0,
                 {kEchoM, kFrameAnswer, kBad}},
        LoopCase{"RefusedStopStillStops", {{{"method", "stop"}}, {{"method", "m"}}}, {kOverBudget}, 0,
                 {R"({"ok":true})", kBudgetAnswer}},
        LoopCase{"FailedAnswerToARefusalEndsWithThree", {{{"method", "m"}}, {{"method", "m"}}},
                 {kOverBudget, kBrokenPipe}, 3, {kEchoM, kBudgetAnswer}},
        // The reason decides, not the text.
        LoopCase{"RefusalTextWithoutItsReasonEndsWithThree", {{{"method", "m"}}, {{"method", "m"}}},
                 {CommandResult::Failure(3, 0, "response exceeds the IPC payload budget")}, 3, {kEchoM}}),
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

TEST(ResponseEnvelope, LongMessageKeepsItsHeadAndWholeCharacters) {
  const std::string x(4093, 'x');
  const std::pair<std::string, std::string> rows[] = {
      {x + "abc", x + "abc"},
      {x + "abcd", x + "abc... [1 bytes cut]"},
      {x + "\xE2\x82\xAC" + "y", x + "\xE2\x82\xAC... [1 bytes cut]"},
      {x + "a\xE2\x82\xAC", x + "a... [3 bytes cut]"},
      {x + "\xF0\x9F\x98\x80", x + "... [4 bytes cut]"},
      {"HEAD: " + std::string(10000000, '/'), "HEAD: " + std::string(4090, '/') + "... [9995910 bytes cut]"},
  };
  for (const auto& [message, expected] : rows) {
    const json envelope = BuildResponseEnvelope(CommandResult::Failure(7, 1, message));
    ASSERT_LE(envelope["error"].value("message", std::string()).size(), expected.size()) << "not cut";
    EXPECT_EQ(envelope, json({{"error", {{"category", 7}, {"code", 1}, {"message", expected}}}, {"ok", false}}));
  }
}

}  // namespace
}  // namespace brimo_stack::local_runtime
