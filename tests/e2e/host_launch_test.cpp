// Launch refusals and the log file, through the built binary.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/host_process.h"
#include "support/temp_dir.h"

namespace {

using quay_test::HostProcess;

struct LaunchCase {
  const char* name;
  std::vector<std::string> arguments;
  bool accepted;
};

class HostLaunch : public ::testing::TestWithParam<LaunchCase> {};

const std::string kOption = "--brimo-stack-host-config";
const std::string kGood = R"({"log":{"log_dir":"","log_level":0},"transport":null})";

// A valid launch JSON padded with spaces to exactly `size` bytes.
std::string PaddedConfig(size_t size) {
  std::string text = kGood;
  text.insert(text.size() - 1, size - text.size(), ' ');
  return text;
}

TEST_P(HostLaunch, RefusalIsExit64WithNoOutput) {
  const LaunchCase& c = GetParam();
  HostProcess host(c.arguments);
  if (c.accepted) {
    EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  }
  host.CloseStdin();
  const auto status = host.Wait();
  EXPECT_TRUE(status.exited);
  EXPECT_EQ(status.code, c.accepted ? 0 : 64);
  EXPECT_EQ(host.ReadRemainingStdout(), "");
  EXPECT_EQ(host.Stderr(), "");
}

// The launch JSON with `members` added behind the log and the transport.
std::vector<std::string> With(const std::string& members) {
  return {kOption, kGood.substr(0, kGood.size() - 1) + members + "}"};
}
// The launch JSON with this log object.
std::vector<std::string> Log(const std::string& log) { return {kOption, R"({"log":)" + log + R"(,"transport":null})"}; }

INSTANTIATE_TEST_SUITE_P(
    Cases, HostLaunch,
    ::testing::Values(
        LaunchCase{"Good", {kOption, kGood}, true},
        LaunchCase{"NoArguments", {}, false},
        LaunchCase{"OptionOnly", {kOption}, false},
        LaunchCase{"ExtraArgument", {kOption, kGood, "x"}, false},
        LaunchCase{"OptionWithEquals", {kOption + "=" + kGood}, false},
        LaunchCase{"WrongOptionCase", {"--Brimo-stack-host-config", kGood}, false},
        LaunchCase{"OptionPrefixOnly", {"--brimo-stack-host", kGood}, false},
        LaunchCase{"EmptyJson", {kOption, ""}, false},
        LaunchCase{"Exactly16384Bytes", {kOption, PaddedConfig(16384)}, true},
        LaunchCase{"Over16384Bytes", {kOption, PaddedConfig(16385)}, false},
        LaunchCase{"InvalidJson", {kOption, "{"}, false},
        LaunchCase{"NotAnObject", {kOption, "[1]"}, false},
        LaunchCase{"TwoValues", {kOption, kGood + " {}"}, false},
        LaunchCase{"TrailingComma", With(","), false},
        LaunchCase{"Comment", With(" /* c */"), false},
        LaunchCase{"LogNotObject", Log("[]"), false},
        LaunchCase{"LogDirMissing", Log(R"({"log_level":3})"), false},
        LaunchCase{"LogDirNumber", Log(R"({"log_dir":1,"log_level":3})"), false},
        LaunchCase{"LogLevelString", Log(R"({"log_dir":"","log_level":"3"})"), false},
        LaunchCase{"LogLevelBoolean", Log(R"({"log_dir":"","log_level":true})"), false},
        LaunchCase{"TransportMissing", {kOption, R"({"log":{"log_dir":"","log_level":0}})"}, false},
        LaunchCase{"TransportObject",
                   {kOption,
                    R"({"log":{"log_dir":"","log_level":0},"transport":{"stdin_fd":0,"stdout_fd":1,"stderr_fd":2,"parent_watch_fd":3}})"},
                   false},
        LaunchCase{"CrashModeOneWithoutDir", With(R"(,"crash":{"mode":1,"dump_dir":""})"), true},
        LaunchCase{"CrashModeTwoWithoutDir", With(R"(,"crash":{"mode":2,"dump_dir":""})"), false},
        LaunchCase{"CrashModeZeroWithDir", With(R"(,"crash":{"mode":0,"dump_dir":"x"})"), false},
        LaunchCase{"CrashModeThree", With(R"(,"crash":{"mode":3,"dump_dir":""})"), false},
        LaunchCase{"CrashModeNegative", With(R"(,"crash":{"mode":-1,"dump_dir":""})"), false},
        LaunchCase{"CrashModeMissing", With(R"(,"crash":{"dump_dir":""})"), false},
        LaunchCase{"CrashDirMissing", With(R"(,"crash":{"mode":2})"), false},
        LaunchCase{"CrashNull", With(R"(,"crash":null)"), false},
        LaunchCase{"TelemetryString", With(R"(,"telemetry_endpoint":"x")"), false},
        LaunchCase{"TelemetryNull", With(R"(,"telemetry_endpoint":null)"), false},
        LaunchCase{"TelemetryNegative", With(R"(,"telemetry_endpoint":-5)"), true},
        LaunchCase{"UnknownKeysIgnored",
                   {kOption, R"({"log":{"log_dir":"","log_level":0,"z":1},"transport":null,"telemetry_endpoint":2.5,"x":[]})"},
                   true}),
    [](const auto& info) { return std::string(info.param.name); });

// The arguments come from main, not from /proc: without /proc the host starts and serves, and a
// command that needs /proc to name what it opened says so instead of reporting a missing file.
TEST(HostLaunch, WithoutProcTheHostServesAndSaysWhatIsMissing) {
  if (!quay_test::CanHideProc()) {
    GTEST_SKIP() << "this machine gives no mount namespace in which to hide /proc";
  }
  const quay_test::TempDir dir;
  const auto file = dir.WriteFile("f.txt", "x\n");
  HostProcess host({std::string(kOption), quay_test::DefaultLaunchConfig()}, {}, "", /*hide_proc=*/true);
  EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  EXPECT_EQ(host.Call({{"method", "file_read"}, {"params", {{"path", file.native()}}}})["error"],
            nlohmann::json({{"category", 6},
                            {"code", ENOENT},
                            {"message", "INVALID_FILE_PATH: resolve real path failed: /proc is not mounted"}}));
  host.CloseStdin();
  // The sanitizers need /proc themselves: without it they can't even read their options, and
  // their leak check at exit fails the process whatever the host did.
  if (!QUAY_SANITIZER_BUILD) {
    EXPECT_EQ(host.Wait().code, 0);
  }
}

// Runs one session with logging at `level` (and `members` added to the launch JSON): a ping and
// the `failing` request. Returns the log file's text.
std::string RunLoggedSession(const quay_test::TempDir& dir, int level, pid_t& pid, const std::string& members = "",
                             const nlohmann::json& failing = {{"method", "nope"}, {"sdk_call_id", "c1"}}) {
  const std::string config = R"({"log":{"log_dir":")" + dir.path().string() + R"(","log_level":)" +
                             std::to_string(level) + R"(},"transport":null)" + members + "}";
  HostProcess host = HostProcess::WithConfig(config);
  pid = host.pid();
  EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  EXPECT_EQ(host.Call(failing)["ok"], false);
  host.CloseStdin();
  EXPECT_EQ(host.Wait().code, 0);
  const auto log_dir = dir.path() / "marsh_console_host";
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(log_dir)) {
    files.push_back(entry.path());
  }
  EXPECT_EQ(files.size(), 1u);
  if (files.size() != 1) {
    return {};
  }
  const std::regex name("marsh_console_host_[0-9]{14}_" + std::to_string(pid) + "\\.log");
  EXPECT_TRUE(std::regex_match(files[0].filename().string(), name)) << files[0];
  return quay_test::ReadWholeFile(files[0]);
}

TEST(HostLog, LinesHaveTheFixedFormatAndCrLf) {
  quay_test::TempDir dir;
  pid_t pid = 0;
  const std::string log = RunLoggedSession(dir, 3, pid);
  const std::string prefix = R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d\]\()" + std::to_string(pid) +
                             R"(\|\d+\)\[([tDIWEF])\]\[json_host_run_loop\.cpp:\d+\] )";
  const std::regex warning(prefix +
                           R"(component=quay_tools_host\.rpc, message=rpc request failed, fields=\{"category":7,"code":2,"method":"nope","sdk_call_id":"c1"\}\r\n)");
  const std::regex stop(prefix +
                        R"(component=quay_tools_host\.rpc, message=IPC loop stopped, fields=\{"exit_code":0,"reason":"eof"\}\r\n$)");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(log, match, warning)) << log;
  EXPECT_EQ(match[1], "W");
  ASSERT_TRUE(std::regex_search(log, match, stop)) << log;
  EXPECT_EQ(match[1], "I");
}

TEST(HostLog, LongMethodAndCallIdAreSummarised) {
  quay_test::TempDir dir;
  pid_t pid = 0;
  const std::string method(1000000, 'm');
  const std::string call_id(1000000, 'c');
  const std::string log = RunLoggedSession(dir, 3, pid, "", {{"method", method}, {"sdk_call_id", call_id}});
  ASSERT_LT(log.size(), 4096u) << "the log echoes the request";
  const std::string summary = R"(\{len=1000000, hash=[0-9a-f]{16}, ext=\\"\\"\})";
  const std::regex line(R"(message=rpc request failed, fields=\{"category":7,"code":2,"method":")" + summary +
                        R"(","sdk_call_id":")" + summary + R"("\})");
  EXPECT_TRUE(std::regex_search(log, line)) << log;
}

TEST(HostLog, LevelDecidesWhatIsWritten) {
  struct Row {
    int level;
    bool has_warning;
    bool has_info;
  };
  for (const Row row : {Row{4, true, false}, Row{5, false, false}, Row{7, false, false}, Row{2, true, true}}) {
    quay_test::TempDir dir;
    pid_t pid = 0;
    const std::string log = RunLoggedSession(dir, row.level, pid);
    EXPECT_EQ(log.find("[W]") != std::string::npos, row.has_warning) << "level " << row.level << "\n" << log;
    EXPECT_EQ(log.find("[I]") != std::string::npos, row.has_info) << "level " << row.level << "\n" << log;
  }
}

TEST(HostLog, UncreatableLogDirectoryLeavesTheHostServing) {
  quay_test::TempDir dir;
  const auto blocker = dir.WriteFile("file", "x");
  const std::string config =
      R"({"log":{"log_dir":")" + blocker.string() + R"(","log_level":3},"transport":null})";
  HostProcess host = HostProcess::WithConfig(config);
  EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  host.CloseStdin();
  EXPECT_EQ(host.Wait().code, 0);
  // The failure line may go to standard error, never to standard output.
  EXPECT_EQ(host.ReadRemainingStdout(), "");
  EXPECT_NE(host.Stderr().find("host_logger_config_failed host=marsh_console_host exception_kind=standard"),
            std::string::npos);
}

TEST(HostLog, FailedCrashHandlerIsLoggedAndRequestsAreServed) {
  quay_test::TempDir dir;
  const auto blocker = dir.WriteFile("dumps", "not a directory");
  pid_t pid = 0;
  const std::string log = RunLoggedSession(dir, 3, pid, R"(,"crash":{"mode":2,"dump_dir":")" + blocker.string() + R"("})");
  EXPECT_NE(log.find("[E]"), std::string::npos) << log;
  EXPECT_NE(log.find("component=quay_tools_host.crash, message=initialize self-managed crash handler failed, fields={}"),
            std::string::npos)
      << log;
}

}  // namespace
