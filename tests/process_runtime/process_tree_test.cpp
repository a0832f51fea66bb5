// The child's whole tree: Terminate and Kill end every descendant, those that left the group
// or the session too, the death of the host takes the tree with it, and the counts follow it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <future>
#include <sstream>

#include "process_runtime/native_process.h"
#include "support/host_process.h"
#include "support/native_process_helpers.h"
#include "support/test_child.h"

namespace {

using namespace quay_test;
using namespace std::chrono_literals;
using process_runtime::CreateNativeProcess;
using Clock = std::chrono::steady_clock;

// A descendant that reports its pid on the inherited stdout and then waits. Below a PID namespace
// $$ is the namespace's number; /proc, opened by the shell itself, gives the host's.
const std::string kReporterText = "sh -c 'read -r pid rest </proc/self/stat; echo $pid; exec sleep 60'";

// The pids of the first `count` lines of `out`, once they have arrived.
std::vector<pid_t> CollectPids(StreamCollector& out, size_t count) {
  const auto lines = [](const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  };
  EXPECT_TRUE(out.WaitUntil([&](const std::string& text) { return lines(text) >= count; }, 10s)) << out.Text();
  std::vector<pid_t> pids;
  std::istringstream text(out.Text());
  for (long pid; pids.size() < count && text >> pid;) pids.push_back(static_cast<pid_t>(pid));
  return pids;
}

// Runs the tree under a NativeProcess, reports the child's pid and the descendants' lines, and
// stays until killed.
QUAY_TEST_CHILD(host) {
  const ScopedContainment containment(static_cast<Containment>(std::stoi(args.at(2))));
  const auto process = CreateNativeProcess();
  if (!process->Start(ShellOptions(args.at(0))).ok) return 2;
  std::string report = std::to_string(process->ProcessId()) + "\n";
  char buffer[256];
  for (size_t lines = 0; lines < std::stoul(args.at(1));) {
    process_runtime::OutputRead read;
    if (!process->ReadStdout(buffer, sizeof buffer, read).ok || read.eof) return 3;
    report.append(buffer, read.bytes_read);
    lines = static_cast<size_t>(std::count(report.begin(), report.end(), '\n')) - 1;
  }
  if (::write(1, report.data(), report.size()) != static_cast<ssize_t>(report.size())) return 4;
  ::pause();
  return 0;
}

struct TreeCase {
  const char* name;
  std::string script;
  size_t descendants;
  // child_exits: the child ends on a line of input and leaves its descendants holding its stdout.
  bool use_kill, child_exits;
};

class ProcessTreeTest : public testing::TestWithParam<std::tuple<TreeCase, Containment>> {};

TEST_P(ProcessTreeTest, TerminateEndsEveryDescendantAndTheReads) {
  const auto& [c, containment] = GetParam();
  const ScopedContainment scoped(containment);
  auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(ShellOptions(c.script)).ok);
  {
    StreamCollector out(*process, Stream::kStdout);
    StreamCollector err(*process, Stream::kStderr);
    const std::vector<pid_t> pids = CollectPids(out, c.descendants);
    ASSERT_EQ(pids.size(), c.descendants);
    uint32_t exit_code = 1;
    std::future<bool> waited;
    if (c.child_exits) {
      ASSERT_TRUE(process->WriteStdin("go\n").ok);
      ASSERT_TRUE(process->Wait(5000, exit_code).ok);
      EXPECT_EQ(exit_code, 0u);
    } else {
      // Another thread waits while the owner ends the tree, as a reader that ends a run does.
      waited = std::async(std::launch::async, [&] { return process->Wait(10000, exit_code).ok; });
    }
    const auto started = Clock::now();
    c.use_kill ? process->Kill() : process->Terminate();
    EXPECT_LT(Clock::now() - started, 500ms);
    EXPECT_TRUE(out.WaitForEnd(2s));
    EXPECT_TRUE(err.WaitForEnd(2s));
    if (waited.valid()) {
      ASSERT_EQ(waited.wait_for(2s), std::future_status::ready);
      EXPECT_TRUE(waited.get());
      EXPECT_EQ(exit_code, 137u);
    }
    for (const pid_t pid : pids) EXPECT_TRUE(EndsWithin(pid, 2s)) << pid;
  }
  // The child stays a zombie while the object could still signal its group; the object reaps it.
  process.reset();
  EXPECT_FALSE(HasChildren());
}

const auto kCaseName = [](const auto& info) {
  return std::get<0>(info.param).name + std::to_string(static_cast<int>(std::get<1>(info.param)));
};

// Descendants that stay in the child's process group: every containment reaches them, also
// after the child itself has been waited for.
INSTANTIATE_TEST_SUITE_P(
    InTheGroup, ProcessTreeTest,
    testing::Combine(testing::Values(TreeCase{"grandchild", kReporterText + " & exec sleep 60", 1, false, false},
                                     TreeCase{"double_fork", "(" + kReporterText + " &); exec sleep 60", 1, false, false},
                                     TreeCase{"nohup", "nohup " + kReporterText + " & exec sleep 60", 1, false, false},
                                     TreeCase{"pipe_holder", kReporterText + " & read go; exit 0", 1, false, true}),
                     testing::ValuesIn(kAllContainments)),
    kCaseName);

// Descendants that leave the group: only a PID namespace reaches them.
INSTANTIATE_TEST_SUITE_P(
    LeavingTheGroup, ProcessTreeTest,
    testing::Combine(
        testing::Values(
            TreeCase{"setsid", "setsid " + kReporterText + " & exec sleep 60", 1, true, false},
            TreeCase{
                "setsid_double_fork_and_pipe_holder",
                R"sh(setsid sh -c "(sh -c 'read -r pid rest </proc/self/stat; echo \$pid; exec sleep 60' &)"; )sh" +
                    kReporterText + " & read go; exit 0",
                2, false, true}),
        testing::ValuesIn(kNamespaceContainments)),
    kCaseName);

TEST(ProcessTree, DeathOfTheHostEndsTheTree) {
  const std::string script = "setsid " + kReporterText + " & (" + kReporterText + " &); exec sleep 60";
  for (const auto containment : kNamespaceContainments) {
    SCOPED_TRACE("containment " + std::to_string(static_cast<int>(containment)));
    HostProcess host(TestChildArguments("host", {script, "2", std::to_string(static_cast<int>(containment))}), {}, "",
                     false, SelfExecutable());
    std::vector<pid_t> pids;
    for (int i = 0; i < 3; ++i) {
      const auto line = host.ReadLine(10s);
      ASSERT_TRUE(line.has_value()) << host.Stderr();
      pids.push_back(static_cast<pid_t>(std::stol(*line)));
    }
    for (const pid_t pid : pids) ASSERT_FALSE(EndsWithin(pid, 0ms)) << pid;
    ASSERT_EQ(::kill(host.pid(), SIGKILL), 0);
    EXPECT_EQ(host.Wait(5s).signal, SIGKILL);
    for (const pid_t pid : pids) EXPECT_TRUE(EndsWithin(pid, 2s)) << pid;
  }
}

class ProcessCountsTest : public testing::TestWithParam<Containment> {};

TEST_P(ProcessCountsTest, FollowTheTreeAgainstTheBaseline) {
  const ScopedContainment scoped(GetParam());
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(ShellOptions("read go; sleep 60 & sleep 60 & echo ready; wait")).ok);
  StreamCollector out(*process, Stream::kStdout);
  ASSERT_TRUE(process->CaptureBaselineProcesses().ok);
  const auto expect_counts = [&](uint32_t total, uint32_t not_in_baseline) {
    process_runtime::ProcessCounts counts;
    ASSERT_TRUE(process->CountProcesses(counts).ok);
    EXPECT_EQ(counts.total, total);
    EXPECT_EQ(counts.not_in_baseline, not_in_baseline);
  };
  expect_counts(1, 0);
  ASSERT_TRUE(process->WriteStdin("go\n").ok);
  ASSERT_TRUE(out.WaitForText("ready", 5s));
  expect_counts(3, 2);
  EXPECT_EQ(TerminateAndWait(*process), 137u);
  expect_counts(0, 0);
}

INSTANTIATE_TEST_SUITE_P(Containments, ProcessCountsTest, testing::ValuesIn(kAllContainments));

}  // namespace

QUAY_TEST_MAIN_WITH_CHILDREN()
