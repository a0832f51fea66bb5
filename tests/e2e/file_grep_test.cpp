// file_grep against the built host and the real rg: what it finds, what the policy hides, what
// it refuses, and that no request text can make rg run another program.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/host_command_fixture.h"
#include "support/native_process_helpers.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kRg = "/usr/bin/rg";

// Processes whose command line holds `needle`, as the host's system sees them.
std::vector<pid_t> ProcessesMentioning(const std::string& needle) {
  std::vector<pid_t> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream cmdline(entry.path() / "cmdline");
    std::string text((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
    if (text.find(needle) != std::string::npos) found.push_back(static_cast<pid_t>(std::stol(name)));
  }
  return found;
}

class FileGrepTest : public quay_test::HostCommandTest {
 protected:
  void SetUp() override { ASSERT_TRUE(Call("internal:initialize", {{"rg_executable", kRg}}).value("ok", false)); }

  json Grep(json params) {
    params["base_cwd"] = root_.native();
    return Data("file_grep", std::move(params));
  }
};

TEST_F(FileGrepTest, FindsLinesAndDropsWhatThePolicyRefuses) {
  dir_.WriteFile("src/a.txt", "needle one\nhay\n");
  dir_.WriteFile("src/b.txt", "more hay\nneedle two\n");
  dir_.WriteFile("secret/c.txt", "needle three\n");
  const json policy = {{"whitelist_patterns", {root_.native(), P("*")}}, {"blacklist_patterns", {P("secret/*")}}};
  const json data = Grep({{"pattern", "needle"}, {"policy", policy}});
  std::vector<std::string> lines;  // in the order rg's threads finished
  std::istringstream output(data.value("output", ""));
  for (std::string line; std::getline(output, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{P("src/a.txt") + ":1:needle one", P("src/b.txt") + ":2:needle two"}));
  EXPECT_EQ(data.value("truncated", true), false);

  // One file as the root: rg prints no path, and the line stands with that file's decision.
  EXPECT_EQ(Grep({{"pattern", "needle"}, {"path", "src/b.txt"}})["output"], "2:needle two\n");
  EXPECT_EQ(Grep({{"pattern", "absent"}})["output"], "");
  EXPECT_EQ(Grep({{"pattern", "NEEDLE TWO"}, {"case_insensitive", true}, {"return_output_only", true}}),
            json({{"output", P("src/b.txt") + ":2:needle two\n"}}));
}

TEST_F(FileGrepTest, RefusalsCarryTheirWords) {
  dir_.WriteFile("src/a.txt", "x\n");
  EXPECT_EQ(Refusal("file_grep", {{"pattern", ""}}, 7, 1), "INVALID_GREP_PATTERN: pattern is empty");
  EXPECT_EQ(Refusal("file_grep", {{"pattern", "x"}, {"timeout_ms", 4611686018428}}, 7, 1), "timeout_ms is too large");
  EXPECT_EQ(Refusal("file_grep", {{"pattern", "x"}, {"path", P("missing")}}, 7, 1), "FILE_NOT_FOUND: " + P("missing"));
  EXPECT_EQ(Refusal("file_grep",
                    {{"pattern", "x"}, {"path", P("src")}, {"policy", {{"whitelist_patterns", {P("src"), P("src/a.txt")}}}}},
                    7, 1),
            "FILE_ACCESS_DENIED: grep root is not recursively covered by the whitelist");
  const std::string failed = Refusal("file_grep", {{"pattern", "x"}, {"path", P("src")}, {"type", "no-such-type"}}, 7, 1);
  EXPECT_EQ(failed.rfind("GREP_FAILED: ", 0), 0u) << failed;
}

TEST_F(FileGrepTest, NoRequestTextOrConfigurationFileMakesRgRunAProgram) {
  // A configuration file that would run a program for every file searched, were it read.
  const fs::path marker = root_ / "marker";
  dir_.WriteFile("pre.sh", "#!/bin/sh\ntouch " + marker.native() + "\ncat \"$1\"\n");
  ::chmod(P("pre.sh").c_str(), 0755);
  dir_.WriteFile("rgrc", "--pre=" + P("pre.sh") + "\n");
  dir_.WriteFile("src/a.txt", "uses -f/etc/passwd here\nneedle\n");
  quay_test::HostProcess host = quay_test::HostProcess::WithConfig(quay_test::DefaultLaunchConfig(),
                                                                   {"RIPGREP_CONFIG_PATH=" + P("rgrc")});
  ASSERT_TRUE(host.Call({{"method", "internal:initialize"}, {"params", {{"rg_executable", kRg}}}}).value("ok", false));
  const auto grep = [&](json params) {
    params["path"] = P("src");
    return host.Call({{"method", "file_grep"}, {"params", params}});
  };
  const json option_pattern = grep({{"pattern", "-f/etc/passwd"}});
  ASSERT_TRUE(option_pattern.value("ok", false)) << option_pattern.dump();
  EXPECT_EQ(option_pattern["outputs"][0]["data"]["output"], P("src/a.txt") + ":1:uses -f/etc/passwd here\n");
  for (const json& params : {json{{"pattern", "--pre=" + P("pre.sh")}},
                             json{{"pattern", "needle"}, {"glob", "--pre=" + P("pre.sh")}},
                             json{{"pattern", "needle"}, {"type", "--pre=" + P("pre.sh")}},
                             json{{"pattern", "needle"}, {"glob", "--search-zip"}}}) {
    (void)grep(params);
    EXPECT_FALSE(fs::exists(marker)) << params.dump();
  }
  // The same configuration does run the program when rg reads it: the trap above was armed.
  const std::string control = "RIPGREP_CONFIG_PATH=" + P("rgrc") + " " + kRg + " needle " + P("src") + " >/dev/null";
  ASSERT_EQ(std::system(control.c_str()), 0);
  EXPECT_TRUE(fs::exists(marker));
}

TEST_F(FileGrepTest, RgMustStayWhereInitializeFoundIt) {
  fs::copy_file(kRg, root_ / "rg");
  ASSERT_TRUE(Call("internal:initialize", {{"rg_executable", P("rg")}}).value("ok", false));
  dir_.WriteFile("src/a.txt", "needle\n");
  EXPECT_EQ(Grep({{"pattern", "needle"}, {"path", "src"}})["output"], P("src/a.txt") + ":1:needle\n");
  fs::remove(root_ / "rg");
  EXPECT_EQ(Refusal("file_grep", {{"pattern", "needle"}, {"path", P("src")}}, 7, 1),
            "RG_NOT_FOUND: activated rg executable is unavailable");
}

TEST_F(FileGrepTest, AResultFileTakesTheWholeAnswer) {
  ASSERT_TRUE(Call("internal:initialize", {{"rg_executable", kRg}, {"install_dir", P("sandbox_envs_dir")}})
                  .value("ok", false));
  fs::create_directories(root_ / "brimo_stack");
  dir_.WriteFile("src/a.txt", "needle\n");
  const json params = {{"pattern", "needle"}, {"path", P("src")}, {"result_file", P("brimo_stack/out.json")}};
  EXPECT_EQ(Call("file_grep", params), json({{"ok", true}}));
  EXPECT_EQ(quay_test::ReadWholeFile(root_ / "brimo_stack/out.json"),
            json({{"ok", true},
                  {"outputs", {{{"data", {{"output", P("src/a.txt") + ":1:needle\n"}, {"truncated", false}}},
                                {"type", "json"}}}}})
                .dump());
  // Never replaced; and a failed search writes nothing.
  EXPECT_EQ(Refusal("file_grep", params, 3, 0), "file command result artifact already exists");
  EXPECT_EQ(Refusal("file_grep", {{"pattern", ""}, {"result_file", P("brimo_stack/other.json")}}, 7, 1),
            "INVALID_GREP_PATTERN: pattern is empty");
  EXPECT_FALSE(fs::exists(root_ / "brimo_stack/other.json"));
}

// A stand-in for rg that reports where it runs and what it was given.
TEST_F(FileGrepTest, RgRunsInTheRootWithTheRequestsEnvironment) {
  dir_.WriteFile("fake-rg", "#!/bin/sh\necho \"cwd=$(pwd) mark=$QUAY_MARK home=${HOME-unset} last=$(eval echo \\${$#})\"\n");
  ::chmod(P("fake-rg").c_str(), 0755);
  ASSERT_TRUE(Call("internal:initialize", {{"rg_executable", P("fake-rg")}}).value("ok", false));
  dir_.WriteFile("src/a.txt", "x\n");
  EXPECT_EQ(Grep({{"pattern", "x"}, {"path", "src"}, {"base_env", R"({"QUAY_MARK":"on","HOME":"/h"})"}})["output"],
            "cwd=" + P("src") + " mark=on home=/h last=" + P("src") + "\n");
  // Mode 1 starts from the short list, which HOME belongs to and the test's own variables do not.
  quay_test::HostProcess host = quay_test::HostProcess::WithConfig(quay_test::DefaultLaunchConfig(), {"QUAY_MARK=inherited"});
  ASSERT_TRUE(host.Call({{"method", "internal:initialize"}, {"params", {{"rg_executable", P("fake-rg")}}}}).value("ok", false));
  const auto output = [&](int mode) {
    return host.Call({{"method", "file_grep"},
                      {"params", {{"pattern", "x"}, {"path", P("src/a.txt")}, {"environment_mode", mode}}}})["outputs"][0]
        ["data"]["output"]
            .get<std::string>();
  };
  const std::string inherited = output(0), restricted = output(1);
  EXPECT_NE(inherited.find(" mark=inherited "), std::string::npos) << inherited;
  EXPECT_NE(restricted.find("cwd=" + P("src") + " mark= "), std::string::npos) << restricted;
}

TEST_F(FileGrepTest, OddBytesAndBinaryFilesAreAnsweredAndTheHostGoesOn) {
  dir_.WriteFile("src/bad\xff.txt", "needle \xfe here\n");
  dir_.WriteFile("src/bin.dat", std::string("needle\0\x01\x02 and more\n", 19));
  dir_.WriteFile("src/plain.txt", "needle\n");
  const json data = Grep({{"pattern", "needle"}, {"path", "src"}});
  const std::string output = data.value("output", "");
  EXPECT_NE(output.find(P("src/plain.txt") + ":1:needle\n"), std::string::npos) << output;
  // The frame carries ill-formed bytes as U+FFFD.
  EXPECT_NE(output.find(P("src/bad") + "\xef\xbf\xbd.txt:1:needle \xef\xbf\xbd here"), std::string::npos) << output;
  EXPECT_EQ(Call("ping", json::object()), json({{"ok", true}}));
}

// rg blocks on opening a FIFO that has no writer: a search that never ends by itself.
TEST_F(FileGrepTest, ATimeLimitStopsRgAndTheHostLeavesNothingBehind) {
  const fs::path fifo = root_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // The host's descriptors and threads.
  const auto entries = [&](const char* folder) {
    return std::distance(fs::directory_iterator("/proc/" + std::to_string(host_.pid()) + "/" + folder), {});
  };
  dir_.WriteFile("src/a.txt", "needle\n");
  (void)Grep({{"pattern", "needle"}, {"path", "src"}});
  const auto fds_before = entries("fd");
  const auto threads_before = entries("task");

  const auto started = std::chrono::steady_clock::now();
  const json answer = Call("file_grep", {{"pattern", "x"}, {"path", fifo.native()}, {"timeout_ms", 300}});
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(answer["error"], json({{"category", 1}, {"code", 5}, {"message", "GREP_TIMEOUT: rg exceeded timeout_ms"}}));
  EXPECT_LT(took, 3s);
  EXPECT_TRUE(ProcessesMentioning(fifo.native()).empty());
  for (int i = 0; i < 60; ++i) ASSERT_EQ(Grep({{"pattern", "needle"}, {"path", "src"}})["output"], P("src/a.txt") + ":1:needle\n");
  EXPECT_EQ(entries("fd"), fds_before);
  EXPECT_EQ(entries("task"), threads_before);
}

TEST_F(FileGrepTest, DeathOfTheHostTakesRgWithIt) {
  const fs::path fifo = root_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const json request = {{"method", "file_grep"}, {"params", {{"pattern", "x"}, {"path", fifo.native()}}}};
  ASSERT_TRUE(host_.Write(request.dump() + "\n"));
  std::vector<pid_t> rg;
  for (int i = 0; i < 100 && rg.empty(); ++i) {
    std::this_thread::sleep_for(20ms);
    rg = ProcessesMentioning(fifo.native());
  }
  ASSERT_FALSE(rg.empty());
  ASSERT_EQ(::kill(host_.pid(), SIGKILL), 0);
  (void)host_.Wait(5s);
  for (const pid_t pid : rg) EXPECT_TRUE(quay_test::EndsWithin(pid, 2s)) << pid;
}

// Root reads through any mode, so the host runs as nobody to meet an unreadable directory.
TEST(FileGrepUnprivileged, UnreadableDirectoriesBelowTheRootAreNotAFailure) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  dir.WriteFile("tree/open/a.txt", "needle\n");
  dir.WriteFile("tree/closed/b.txt", "needle\n");
  for (const fs::path& p : {root, root / "tree", root / "tree/open"}) ::chmod(p.c_str(), 0755);
  ::chmod((root / "tree/open/a.txt").c_str(), 0644);
  ::chmod((root / "tree/closed").c_str(), 0);
  quay_test::HostProcess host({"--reuid=65534", "--regid=65534", "--clear-groups", QUAY_TOOLS_HOST_BINARY,
                               "--brimo-stack-host-config", quay_test::DefaultLaunchConfig()},
                              {}, "", false, "setpriv");
  ASSERT_TRUE(host.Call({{"method", "internal:initialize"}, {"params", {{"rg_executable", kRg}}}}).value("ok", false));
  const json answer =
      host.Call({{"method", "file_grep"}, {"params", {{"pattern", "needle"}, {"path", (root / "tree").native()}}}});
  ::chmod((root / "tree/closed").c_str(), 0755);
  ASSERT_TRUE(answer.value("ok", false)) << answer.dump();
  EXPECT_EQ(answer["outputs"][0]["data"],
            json({{"output", (root / "tree/open/a.txt").native() + ":1:needle\n"}, {"truncated", true}}));
}

}  // namespace
