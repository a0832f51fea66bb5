// RunRipgrepProcess with the real rg and with scripts in its place that flood, overrun their
// time or fail to start; the stderr classification as one table.
#include "quay_tools_host/search/ripgrep_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <thread>

#include "support/native_process_helpers.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

constexpr const char* kRealRg = "/usr/bin/rg";

TEST(IsPermissionOnlyStderrTest, EveryLineMustNameAnUnreadablePathBelowTheRoot) {
  const struct {
    const char* name;
    std::string_view text;
    bool truncated, expected;
  } cases[] = {
      {"denied", "rg: /srv/repo/a: Permission denied (os error 13)\n", false, true},
      {"not permitted, CR LF and blank lines",
       "\r\nrg: /srv/repo/a b: Operation not permitted (os error 1)\r\n\n\r\nrg: /srv/repo/c/d: Permission denied "
       "(os error 13)",
       false, true},
      {"access denied ending", "rg: /srv/repo/a: Access is denied. (os error 5)\n", false, true},
      {"relative path joined to the root", "rg: ./sub/../x: Permission denied (os error 13)\n", false, true},
      {"truncated", "rg: /srv/repo/a: Permission denied (os error 13)\n", true, false},
      {"empty", "", false, false},
      {"only line ends", "\r\n\n", false, false},
      {"the root itself", "rg: /srv/repo/: Permission denied (os error 13)\n", false, false},
      {"the root as a relative dot", "rg: .: Permission denied (os error 13)\n", false, false},
      {"relative path climbing out", "rg: ../other/x: Permission denied (os error 13)\n", false, false},
      {"absolute path climbing out", "rg: /srv/repo/../etc/x: Permission denied (os error 13)\n", false, false},
      {"sibling sharing the prefix", "rg: /srv/repository/a: Permission denied (os error 13)\n", false, false},
      {"no path", "rg: : Permission denied (os error 13)\n", false, false},
      {"another program's head", "grep: /srv/repo/a: Permission denied (os error 13)\n", false, false},
      {"rg 13: the absolute path alone", "/srv/repo/a: Permission denied (os error 13)\n", false, true},
      {"rg 13: a relative path alone", "sub/a: Permission denied (os error 13)\n", false, false},
      {"rg 13: below the searched dot", "./sub/a: Permission denied (os error 13)\n", false, true},
      {"rg 13: the searched dot itself", "./: Permission denied (os error 13)\n", false, false},
      {"one other line",
       "rg: /srv/repo/a: Permission denied (os error 13)\nrg: /srv/repo/b: No such file or directory (os error 2)\n",
       false, false},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(IsPermissionOnlyStderr(test.text, test.truncated, "/srv/repo"), test.expected) << test.name;
  }
  // A listing that may count the root among what it could not read.
  const struct {
    std::string_view text;
    bool expected;
  } with_root[] = {
      {"rg: /srv/repo/: Permission denied (os error 13)\n", true},
      {"rg: .: Permission denied (os error 13)\n", true},
      {".: Permission denied (os error 13)\n", true},
      {"./: Permission denied (os error 13)\n", true},
      {"./sub/a: Permission denied (os error 13)\n", true},
      {"..: Permission denied (os error 13)\n", false},
      {"rg: /srv: Permission denied (os error 13)\n", false},
      {"sub: Permission denied (os error 13)\n", false},
  };
  for (const auto& test : with_root) {
    EXPECT_EQ(IsPermissionOnlyStderr(test.text, false, "/srv/repo", /*root_counts=*/true), test.expected) << test.text;
  }
}

class RipgrepProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    (void)dir_.WriteFile("tree/a.txt", "needle here\n");
    (void)dir_.WriteFile("tree/sub/b.txt", "nothing\n");
  }

  // A script standing in for rg: the driver runs whatever path it is given.
  std::filesystem::path Script(std::string_view name, std::string_view text, bool executable = true) {
    const std::filesystem::path path = dir_.WriteFile(std::string("bin/") + std::string(name), text);
    if (executable) std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
  }

  RipgrepRun Run(const std::filesystem::path& rg, std::vector<std::string> arguments, uint64_t timeout_ms = 20000) {
    RipgrepRun run;
    run.rg_path = rg;
    run.arguments = std::move(arguments);
    run.cwd = dir_.path() / "tree";
    run.root = run.cwd;
    run.timeout_ms = timeout_ms;
    return run;
  }

  quay_test::TempDir dir_;
};

TEST_F(RipgrepProcessTest, ExitCodeAndStderrDecideTheResult) {
  const struct {
    const char* name;
    std::string_view script;  // empty: the real rg runs with `arguments`
    std::vector<std::string> arguments;
    std::string message;  // empty: the run succeeds
    std::string stdout_text;
    bool permission_errors_only = false;
  } cases[] = {
      {"matches", "", {"--no-config", "-n", "needle", "."}, "", "./a.txt:1:needle here\n"},
      {"no match", "", {"--no-config", "absent", "."}, "", ""},
      {"error line", "", {"--no-config", "needle", "missing"},
       "GREP_FAILED: missing: No such file or directory (os error 2)", ""},
      {"silent error", "", {"--no-config", "--no-messages", "needle", "missing"},
       "GREP_FAILED: rg exited unsuccessfully", ""},
      {"no match with stderr", "#!/bin/sh\necho warning >&2\nexit 1\n", {}, "", ""},
      {"only line ends on stderr", "#!/bin/sh\nprintf '\\r\\n\\n' >&2\nexit 2\n", {},
       "GREP_FAILED: rg exited unsuccessfully", ""},
      {"trailing CR LF dropped", "#!/bin/sh\nprintf 'rg: bad\\r\\nsecond\\r\\n\\n' >&2\nexit 2\n", {},
       "GREP_FAILED: rg: bad\r\nsecond", ""},
      {"permission lines below the root",
       "#!/bin/sh\necho partial\nprintf 'rg: ./locked: Permission denied (os error 13)\\r\\n' >&2\nexit 2\n", {}, "",
       "partial\n", true},
      {"killed by a signal", "#!/bin/sh\necho dying >&2\nkill -9 $$\n", {}, "GREP_FAILED: dying", ""},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    const std::filesystem::path rg = test.script.empty() ? std::filesystem::path(kRealRg) : Script("rg", test.script);
    RipgrepOutput output;
    const CommandResult result = RunRipgrepProcess(Run(rg, test.arguments), output);
    if (test.message.empty()) {
      ASSERT_TRUE(result.ok) << result.error->message;
      EXPECT_EQ(output.stdout_text, test.stdout_text);
      EXPECT_EQ(output.permission_errors_only, test.permission_errors_only);
    } else {
      quay_test::ExpectError(result, 7, 1, test.message);
    }
  }
}

TEST_F(RipgrepProcessTest, OutputOfExactlyTheLimitCountsAsTruncated) {
  const struct {
    uint64_t limit, written;
    bool truncated;
  } cases[] = {
      {kGrepStdoutLimit, kGrepStdoutLimit, true}, {kGrepStdoutLimit, kGrepStdoutLimit - 1, false},
      {10, 10, true},                            {10, 9, false},
      {10, 5000, true},
  };
  const auto rg = Script("rg", "#!/bin/sh\nhead -c \"$1\" /dev/zero\n");
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << test.written << " bytes, limit " << test.limit);
    RipgrepRun run = Run(rg, {std::to_string(test.written)});
    run.stdout_limit = test.limit;
    RipgrepOutput output;
    ASSERT_TRUE(RunRipgrepProcess(run, output).ok);
    EXPECT_EQ(output.stdout_text.size(), std::min(test.limit, test.written));
    EXPECT_EQ(output.stdout_truncated, test.truncated);
  }
}

TEST_F(RipgrepProcessTest, FloodOfBothStreamsIsDroppedPastTheLimits) {
  // 48 MiB and 8 MiB: a reader that stopped at its limit would stall the child on a full pipe.
  const auto rg = Script("rg", "#!/bin/sh\nhead -c 50331648 /dev/zero &\nhead -c 8388608 /dev/zero >&2\nwait\n");
  RipgrepOutput output;
  const auto started = SteadyClock::now();
  const CommandResult result = RunRipgrepProcess(Run(rg, {}, /*timeout_ms=*/15000), output);
  ASSERT_TRUE(result.ok) << result.error->message;
  EXPECT_LT(SteadyClock::now() - started, milliseconds(10000));
  EXPECT_EQ(output.stdout_text.size(), kGrepStdoutLimit);
  EXPECT_TRUE(output.stdout_truncated);
  EXPECT_EQ(output.stderr_text.size(), kRipgrepStderrLimit);
}

// Sixty runs, then one that overruns with a grandchild holding both pipes: both are stopped and
// nothing is left. /proc is the host's, so /proc/self/stat gives the grandchild's host number.
TEST_F(RipgrepProcessTest, OverrunChildAndGrandchildAreStoppedAndRunsLeaveNothing) {
  const auto rg = Script("rg",
                         "#!/bin/sh\ntrap '' TERM\n"
                         "( read -r pid rest < /proc/self/stat; echo \"$pid\" > \"$1.tmp\"; mv \"$1.tmp\" \"$1\";"
                         " exec sleep 30 ) &\n"
                         "sleep 30\n");
  const RipgrepRun real = Run(kRealRg, {"--no-config", "needle", "."});
  RipgrepOutput output;
  ASSERT_TRUE(RunRipgrepProcess(real, output).ok);
  const size_t descriptors = quay_test::CountSelfEntries("fd");
  const size_t tasks = quay_test::CountSelfEntries("task");
  for (int i = 1; i < 60; ++i) {
    ASSERT_TRUE(RunRipgrepProcess(real, output).ok) << "run " << i;
    ASSERT_EQ(output.stdout_text, "./a.txt:needle here\n");
  }

  const auto pid_file = dir_.path() / "grandchild.pid";
  constexpr uint64_t kTimeoutMs = 500;
  CommandResult result;
  const auto started = SteadyClock::now();
  pid_t grandchild = 0;
  {
    auto run = std::async(std::launch::async,
                          [&] { return RunRipgrepProcess(Run(rg, {pid_file.string()}, kTimeoutMs), output); });
    // The script writes the pid once the grandchild runs.
    for (; grandchild == 0 && SteadyClock::now() < started + milliseconds(5000);
         std::this_thread::sleep_for(milliseconds(10))) {
      std::ifstream(pid_file) >> grandchild;
    }
    ASSERT_NE(grandchild, 0);
    EXPECT_FALSE(quay_test::EndsWithin(grandchild, milliseconds(0))) << "the grandchild should run meanwhile";
    result = run.get();
  }
  const auto elapsed = SteadyClock::now() - started;
  quay_test::ExpectError(result, 1, 5, "GREP_TIMEOUT: rg exceeded timeout_ms");
  EXPECT_GE(elapsed, milliseconds(kTimeoutMs));
  EXPECT_LT(elapsed, milliseconds(kTimeoutMs + 2500));
  EXPECT_TRUE(quay_test::EndsWithin(grandchild, milliseconds(500)));
  EXPECT_FALSE(quay_test::HasChildren());
  EXPECT_EQ(quay_test::CountSelfEntries("fd"), descriptors);
  EXPECT_EQ(quay_test::CountSelfEntries("task"), tasks);
}

TEST_F(RipgrepProcessTest, ProgramThatCannotStartFailsTheRun) {
  const std::filesystem::path programs[] = {
      Script("plain-file", "#!/bin/sh\nexit 0\n", /*executable=*/false),
      Script("bad-interpreter", "#!/nonexistent\n"),
  };
  for (const auto& program : programs) {
    SCOPED_TRACE(program.filename().string());
    RipgrepOutput output;
    const CommandResult result = RunRipgrepProcess(Run(program, {}), output);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->category, 6);
    EXPECT_NE(result.error->message.find(" failed: "), std::string::npos) << result.error->message;
    EXPECT_FALSE(quay_test::HasChildren());
  }
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
