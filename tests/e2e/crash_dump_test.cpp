// Crash dumps through real faults of real processes, opened with gdb.
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/host_process.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr char kGuidPattern[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";

struct RunResult : quay_test::ExitStatus {
  std::string output;
};

// Runs a program to its end and collects its standard output, followed by its standard error
// when `with_stderr`.
RunResult RunProgram(const std::vector<std::string>& arguments, bool with_stderr = false) {
  quay_test::HostProcess child({arguments.begin() + 1, arguments.end()}, {}, "", false, arguments[0]);
  child.CloseStdin();
  RunResult result;
  result.output = child.ReadRemainingStdout(std::chrono::seconds(60));
  static_cast<quay_test::ExitStatus&>(result) = child.Wait();
  if (with_stderr) result.output += child.Stderr();
  return result;
}

// The value of "<key>=" on its own line of `output`.
std::string ValueOf(const std::string& output, const std::string& key) {
  std::smatch match;
  return std::regex_search(output, match, std::regex("(^|\n)" + key + "=([^\n]*)")) ? match[2].str() : "";
}

std::vector<fs::path> DumpFiles(const fs::path& dump_dir) {
  std::error_code absent;  // no directory, no dumps
  return {fs::directory_iterator(dump_dir / "brimo_stack", absent), fs::directory_iterator()};
}

bool GdbInstalled() { return RunProgram({"gdb", "--version"}).code == 0; }

std::string DebugDump(const std::string& program, const fs::path& dump,
                      const std::string& backtrace = "thread apply all bt") {
  return RunProgram({"gdb", "-nx", "-batch", "-ex", "set debuginfod enabled off", "-ex", "info threads", "-ex",
                     backtrace, program, dump.string()},
                    /*with_stderr=*/true)
      .output;
}

RunResult RunCrashProgram(int mode, const fs::path& dump_dir, const std::string& scenario) {
  return RunProgram({QUAY_CRASH_TEST_PROGRAM, std::to_string(mode), dump_dir.string(), scenario});
}

// The fault tests need the fault signals; the sanitizers own them in their build.
class CrashDumpTest : public testing::Test {
 protected:
  void SetUp() override {
    if (QUAY_SANITIZER_BUILD) {
      GTEST_SKIP() << "the sanitizers handle the fault signals in this build";
    }
    ASSERT_TRUE(GdbInstalled()) << "gdb is required; scripts/common.sh installs it";
    // Core files allowed (the children inherit the limit), so that a test can see that none was written.
    rlimit core{};
    ::getrlimit(RLIMIT_CORE, &core);
    core.rlim_cur = core.rlim_max;
    ::setrlimit(RLIMIT_CORE, &core);
  }
  quay_test::TempDir temp_;
};

TEST_F(CrashDumpTest, FaultInWorkerThreadDumpsEveryThread) {
  const RunResult run = RunCrashProgram(2, temp_.path(), "worker-fault");
  EXPECT_EQ(run.signal, SIGSEGV) << run.output;
  EXPECT_FALSE(run.core_dumped);
  const std::string dump_path = ValueOf(run.output, "dump_path");
  ASSERT_EQ(DumpFiles(temp_.path()), std::vector<fs::path>{dump_path});

  std::istringstream tids(ValueOf(run.output, "threads"));
  const std::vector<std::string> thread_ids{std::istream_iterator<std::string>(tids), {}};
  ASSERT_EQ(thread_ids.size(), 5u) << run.output;  // main, three blocked, the faulting one

  const std::string gdb = DebugDump(QUAY_CRASH_TEST_PROGRAM, dump_path);
  EXPECT_NE(gdb.find("Program terminated with signal SIGSEGV"), std::string::npos) << gdb;
  for (const auto& tid : thread_ids) {
    EXPECT_NE(gdb.find("(LWP " + tid + ")"), std::string::npos) << "thread " << tid << "\n" << gdb;
  }
  // gdb selects the first thread of the dump: it must be the one that faulted.
  EXPECT_TRUE(std::regex_search(gdb, std::regex("\\n\\* 1 +[^\\n]*\\(LWP " + thread_ids.back() + "\\)"))) << gdb;
  for (const char* function : {"QuayCrashBlockedAlpha", "QuayCrashBlockedBeta", "QuayCrashBlockedGamma",
                               "QuayCrashFaultingWorker", "QuayCrashMainWaiting", "WriteThroughNull",
                               "<signal handler called>"}) {
    EXPECT_NE(gdb.find(function), std::string::npos) << function << "\n" << gdb;
  }
  EXPECT_EQ(gdb.find("Cannot access memory"), std::string::npos) << gdb;
}

struct FaultCase {
  const char* scenario;
  int signal;
  const char* frame;  // a frame the backtrace must show
};

class CrashSignalTest : public CrashDumpTest, public testing::WithParamInterface<FaultCase> {};

TEST_P(CrashSignalTest, DumpsThenDiesBySignalWithoutSystemCore) {
  const FaultCase& c = GetParam();
  const RunResult run = RunCrashProgram(2, temp_.path(), c.scenario);
  EXPECT_FALSE(run.exited) << run.output;
  EXPECT_EQ(run.signal, c.signal);
  EXPECT_FALSE(run.core_dumped);
  const std::string dump_path = ValueOf(run.output, "dump_path");
  ASSERT_EQ(DumpFiles(temp_.path()), std::vector<fs::path>{dump_path});
  // The innermost frames: the whole backtrace of a stack overflow would be the whole recursion.
  const std::string gdb = DebugDump(QUAY_CRASH_TEST_PROGRAM, dump_path, "bt 40");
  EXPECT_NE(gdb.find(std::string("Program terminated with signal SIG") + ::sigabbrev_np(c.signal)), std::string::npos)
      << gdb;
  EXPECT_NE(gdb.find(c.frame), std::string::npos) << gdb;
}

// The overflow faults in the main thread too; only the alternate signal stack lets it be dumped.
INSTANTIATE_TEST_SUITE_P(FatalSignals, CrashSignalTest,
                         testing::Values(FaultCase{"segv", SIGSEGV, " main ("}, FaultCase{"bus", SIGBUS, " main ("},
                                         FaultCase{"fpe", SIGFPE, " main ("}, FaultCase{"ill", SIGILL, " main ("},
                                         FaultCase{"abrt", SIGABRT, " main ("}, FaultCase{"sys", SIGSYS, " main ("},
                                         FaultCase{"overflow", SIGSEGV, "OverflowStack"}),
                         [](const testing::TestParamInfo<FaultCase>& info) { return info.param.scenario; });

TEST_F(CrashDumpTest, ExistingDumpFileIsNeitherOverwrittenNorRemoved) {
  const RunResult run = RunCrashProgram(2, temp_.path(), "occupied");
  EXPECT_EQ(run.signal, SIGSEGV) << run.output;
  const std::string dump_path = ValueOf(run.output, "dump_path");
  ASSERT_EQ(DumpFiles(temp_.path()), std::vector<fs::path>{dump_path});
  EXPECT_EQ(quay_test::ReadWholeFile(dump_path), "occupied");
}

TEST_F(CrashDumpTest, DumpThatFailsMidwayLeavesNoFile) {
  const RunResult run = RunCrashProgram(2, temp_.path(), "file-limit");
  EXPECT_EQ(run.signal, SIGSEGV) << run.output;
  EXPECT_FALSE(ValueOf(run.output, "dump_path").empty());
  EXPECT_TRUE(DumpFiles(temp_.path()).empty());
}

TEST_F(CrashDumpTest, HostSentSegvLeavesOneDumpAndDiesBySegv) {
  const fs::path dump_dir = temp_.path() / "dumps";
  quay_test::HostProcess host = quay_test::HostProcess::WithConfig(
      R"({"log":{"log_dir":")" + (temp_.path() / "logs").string() + R"(","log_level":3},"transport":null,)" +
      R"("crash":{"mode":2,"dump_dir":")" + dump_dir.string() + R"("}})");
  ASSERT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  ASSERT_EQ(::kill(host.pid(), SIGSEGV), 0);
  const quay_test::ExitStatus status = host.Wait();
  EXPECT_FALSE(status.exited);
  EXPECT_EQ(status.signal, SIGSEGV);
  EXPECT_FALSE(status.core_dumped);

  const std::vector<fs::path> dumps = DumpFiles(dump_dir);
  ASSERT_EQ(dumps.size(), 1u);
  EXPECT_TRUE(std::regex_match(dumps[0].filename().string(),
                               std::regex("quay_tools_host_" + std::to_string(host.pid()) + "_" + kGuidPattern +
                                          "\\.dmp")))
      << dumps[0];
  const std::string gdb = DebugDump(QUAY_TOOLS_HOST_BINARY, dumps[0]);
  EXPECT_NE(gdb.find("Program terminated with signal SIGSEGV"), std::string::npos) << gdb;
  EXPECT_NE(gdb.find("<signal handler called>"), std::string::npos) << gdb;
  EXPECT_NE(gdb.find(" main ("), std::string::npos) << gdb;
}

}  // namespace
