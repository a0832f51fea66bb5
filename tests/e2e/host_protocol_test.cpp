// The host's wire protocol through the built binary: frames, envelopes and exit codes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/host_process.h"

namespace {

using quay_test::ExitStatus;
using quay_test::HostProcess;
using namespace std::string_literals;

constexpr size_t kMaxJsonText = 16777215;

ExitStatus FinishAndWait(HostProcess& host) {
  host.CloseStdin();
  return host.Wait();
}

void ExpectExit(const ExitStatus& status, int code) {
  EXPECT_TRUE(status.exited) << "signal " << status.signal;
  EXPECT_EQ(status.code, code);
}

// `head`, then 'a's, then `tail`, `size` bytes in all.
std::string Padded(const std::string& head, size_t size, const std::string& tail) {
  return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

// `levels` empty arrays, each inside the next.
std::string Nested(size_t levels) {
  std::string text(levels, '[');
  text.append(levels, ']');
  return text;
}

// One input, the frames it must produce, and the exit code it must end with.
struct SessionCase {
  const char* name;
  std::string input;
  std::vector<std::string> frames;
  int exit_code;
};

class HostSession : public ::testing::TestWithParam<SessionCase> {};

TEST_P(HostSession, AnswersAndExitCodeMatch) {
  const SessionCase& c = GetParam();
  HostProcess host = HostProcess::WithConfig();
  host.Write(c.input);  // a host that stops reading early leaves the rest unwritten
  host.CloseStdin();
  const std::string out = host.ReadRemainingStdout();
  std::string expected;
  for (const auto& frame : c.frames) {
    expected += frame + "\n";
  }
  EXPECT_EQ(out, expected);
  ExpectExit(host.Wait(), c.exit_code);
  EXPECT_EQ(host.Stderr(), "");
}

const std::string kUnknown =
    R"({"error":{"category":7,"code":2,"message":"unsupported quay tools host method"},"ok":false})";
const std::string kInvalidJson = R"({"error":{"category":3,"code":0,"message":"invalid json request"},"ok":false})";
const std::string kNulInPath =
    R"({"error":{"category":7,"code":1,"message":"INVALID_FILE_PATH: path contains a NUL character"},"ok":false})";
const std::string kInternal =
    R"({"error":{"category":3,"code":0,"message":"internal host request failure"},"ok":false})";

INSTANTIATE_TEST_SUITE_P(
    Rows, HostSession,
    ::testing::Values(
        SessionCase{"EmptyInputIsEndOfInput", "", {}, 0},
        SessionCase{"CarriageReturnLineFeed", "{\"method\":\"ping\"}\r\n{\"method\":\"ping\"}\n",
                    {R"({"ok":true})", R"({"ok":true})"}, 0},
        SessionCase{"ShutdownStopsBeforeLaterRequests", "{\"method\":\"shutdown\",\"params\":7}\n{\"method\":\"ping\"}\n",
                    {R"({"ok":true})"}, 0},
        SessionCase{"PingIgnoresParams", "{\"method\":\"ping\",\"params\":[1,2]}\n", {R"({"ok":true})"}, 0},
        SessionCase{"UnknownMethodGoesOn", "{\"method\":\"PING\"}\n{}\nnull\n{\"method\":\"ping\"}\n",
                    {kUnknown, kUnknown, kUnknown, R"({"ok":true})"}, 0},
        SessionCase{"UnfinishedFrameIsAReadFailure", "{\"method\":\"ping\"}", {}, 2},
        SessionCase{"EmptyLineIsInvalidJson", "\n{\"method\":\"ping\"}\n", {kInvalidJson}, 1},
        // The whole line is the JSON text, a NUL byte and what follows it included.
        SessionCase{"BytesAfterANulAreRead", "{\"method\":\"ping\"}\0{\"method\":\"shutdown\"}\n"s,
                    {kInvalidJson}, 1},
        SessionCase{"ArrayIsNotARequest", "[1,2]\n{\"method\":\"ping\"}\n", {kInternal}, 1},
        SessionCase{"MethodOfWrongType", "{\"method\":1}\n", {kInternal}, 1},
        SessionCase{"BadParamsGoOn",
                    "{\"method\":\"internal:initialize\",\"params\":[]}\n{\"method\":\"ping\"}\n",
                    {R"({"error":{"category":7,"code":1,"message":"invalid request params: [json.exception.type_error.306] cannot use value() with array"},"ok":false})",
                     R"({"ok":true})"},
                    0},
        SessionCase{"WrongParamTypeGoesOn", "{\"method\":\"file_read\",\"params\":{\"path\":1}}\n{\"method\":\"ping\"}\n",
                    {R"({"error":{"category":7,"code":1,"message":"invalid request params: [json.exception.type_error.302] type must be string, but is number"},"ok":false})",
                     R"({"ok":true})"},
                    0},
        // A text of exactly the limit is a value like any other (a string is no request); one
        // byte more is refused without an answer. A carriage return sits inside the limit.
        SessionCase{"LargestFrame", Padded("\"", kMaxJsonText + 1, "\"\n"), {kInternal}, 1},
        SessionCase{"FrameOverTheLimit", Padded("\"", kMaxJsonText + 2, "\"\n"), {}, 1},
        SessionCase{"LargestFrameWithCarriageReturn", Padded(R"({"method":"ping","pad":")", kMaxJsonText + 1, "\"}\r\n"),
                    {R"({"ok":true})"}, 0},
        // The parser keeps its own stack, and nothing recurses through the request's values.
        SessionCase{"MillionLevelsDeep",
                    "{\"method\":\"ping\",\"params\":" + Nested(1000000) +
                        "}\n{\"method\":\"file_read\",\"params\":{\"path\":" + Nested(1000000) +
                        "}}\n{\"method\":\"ping\"}\n",
                    {R"({"ok":true})",
                     R"({"error":{"category":7,"code":1,"message":"invalid request params: [json.exception.type_error.302] type must be string, but is array"},"ok":false})",
                     R"({"ok":true})"},
                    0},
        SessionCase{"InitializeWithoutParams", "{\"method\":\"internal:initialize\"}\n", {R"({"ok":true})"}, 0},
        // The system would cut each of these paths at the NUL.
        SessionCase{"NulInAnInitializePathIsRefused",
                    R"({"method":"internal:initialize","params":{"rg_executable":"/usr/bin/rg\u0000garbage"}})"
                    "\n"
                    R"({"method":"internal:initialize","params":{"install_dir":"/opt/i\u0000x"}})"
                    "\n"
                    R"({"method":"internal:initialize","params":{"sbox_log_dir":"\u0000"}})"
                    "\n"
                    R"({"method":"internal:initialize","params":{"sbox_dump_dir":"/d\u0000"}})"
                    "\n",
                    {kNulInPath, kNulInPath, kNulInPath, kNulInPath},
                    0},
        SessionCase{"MissingRgIsRefused",
                    "{\"method\":\"internal:initialize\",\"params\":{\"rg_executable\":\"relative/rg\"}}\n",
                    {R"({"error":{"category":7,"code":1,"message":"RG_NOT_FOUND: activated rg executable is unavailable"},"ok":false})"},
                    0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HostFrames, ManyFramesInOneWriteAreAnsweredInOrder) {
  HostProcess host = HostProcess::WithConfig();
  std::string batch;
  for (int i = 0; i < 500; ++i) {
    batch += i % 2 == 0 ? "{\"method\":\"ping\"}\n" : "{\"method\":\"nope\"}\r\n";
  }
  ASSERT_TRUE(host.Write(batch));
  for (int i = 0; i < 500; ++i) {
    const auto line = host.ReadLine();
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(*line, i % 2 == 0 ? R"({"ok":true})" : kUnknown) << "frame " << i;
  }
  ExpectExit(FinishAndWait(host), 0);
}

// Refusals echo their input. A long echo is cut to its first 4,096 bytes (here one byte less, as
// a two-byte character straddles the cut) and marked; the host answers and serves the next request.
TEST(HostFrames, LongEchoesAreCutAndTheHostGoesOn) {
  const std::string export_head = "INVALID_EXPORT_PATH: export_path is outside trusted export root: ";
  // Whole, the refusal would be over the payload budget.
  std::string export_path(4095 - export_head.size(), 'a');
  export_path.front() = '/';
  export_path += "\xC3\xA9";
  export_path.resize(16720000, 'b');
  const std::string pattern = std::string(QUAY_TOOLS_HOST_BINARY) + std::string(3000000, '/');
  struct Row {
    nlohmann::json request;
    std::string message;
    size_t kept;
  };
  const nlohmann::json export_params = {{"path", QUAY_TOOLS_HOST_BINARY}, {"export_path", export_path}};
  const nlohmann::json read_params = {{"path", QUAY_TOOLS_HOST_BINARY},
                                      {"policy", {{"blacklist_patterns", {pattern}}}}};
  const Row rows[] = {
      {{{"method", "file_export"}, {"params", export_params}}, export_head + export_path, 4095},
      {{{"method", "file_read"}, {"params", read_params}},
       "FILE_ACCESS_DENIED: matched blacklist pattern: " + pattern,
       4096},
  };
  HostProcess host = HostProcess::WithConfig();
  for (const Row& row : rows) {
    const std::string expected =
        row.message.substr(0, row.kept) + "... [" + std::to_string(row.message.size() - row.kept) + " bytes cut]";
    const nlohmann::json answer = host.Call(row.request);
    ASSERT_LE(answer["error"].value("message", std::string()).size(), expected.size()) << "not cut";
    EXPECT_EQ(answer,
              nlohmann::json({{"error", {{"category", 7}, {"code", 1}, {"message", expected}}}, {"ok", false}}));
    EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  }
  ExpectExit(FinishAndWait(host), 0);
}

TEST(HostExit, WriteFailureEndsWithThree) {
  for (const char* request : {"{\"method\":\"ping\"}\n", "{\"method\":\"shutdown\"}\n", "not json\n"}) {
    HostProcess host = HostProcess::WithConfig();
    host.CloseStdout();
    ASSERT_TRUE(host.Write(request));
    ExpectExit(FinishAndWait(host), 3);
  }
}

TEST(HostExit, ReadFailureEndsWithTwo) {
  // A directory as standard input: every read fails.
  HostProcess host({"--brimo-stack-host-config", quay_test::DefaultLaunchConfig()}, {}, "/");
  ExpectExit(host.Wait(), 2);
  EXPECT_EQ(host.ReadRemainingStdout(), "");
}

}  // namespace
