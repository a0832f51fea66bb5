// The pipe road of the native process: start failures, what the child sees, reads, waits,
// standard input, a flood on both streams and a thousand launches that leave nothing behind.
#include "process_runtime/native_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "brimo_stack_common/posix/scoped_fd.h"
#include "support/native_process_helpers.h"
#include "support/temp_dir.h"
#include "support/test_child.h"

namespace {

using namespace quay_test;
using namespace std::chrono_literals;
using brimo_stack::ScopedFd;
using process_runtime::CreateNativeProcess;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kFloodBytes = 64ull << 20;

char FloodByte(uint64_t offset, int stream) { return static_cast<char>(offset % 251 + static_cast<uint64_t>(stream)); }

QUAY_TEST_CHILD(describe) {
  nlohmann::json view;
  std::ifstream cmdline("/proc/self/cmdline");
  for (std::string arg; std::getline(cmdline, arg, '\0');) view["argv"].push_back(arg);
  cmdline.close();
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  for (int fd = 0; fd < static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536)); ++fd) {
    if (::fcntl(fd, F_GETFD) != -1) view["fds"].push_back(fd);
  }
  sigset_t mask;
  ::sigprocmask(SIG_SETMASK, nullptr, &mask);
  bool empty_mask = true;
  for (int signal = 1; signal < NSIG; ++signal) empty_mask = empty_mask && ::sigismember(&mask, signal) != 1;
  view["empty_mask"] = empty_mask;
  struct sigaction pipe_action {};
  ::sigaction(SIGPIPE, nullptr, &pipe_action);
  view["sigpipe_default"] = pipe_action.sa_handler == SIG_DFL;
  view["group_leader"] = ::getpgid(0) == ::getpid();
  view["cwd"] = std::filesystem::current_path().string();
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    view["env"][text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
  }
  std::cout << view.dump() << std::endl;
  return 0;
}

// Both streams at once, so a runtime that drains one before the other deadlocks.
QUAY_TEST_CHILD(flood) {
  const auto write_stream = [](int fd, int stream) {
    std::string chunk(64 * 1024, '\0');
    for (uint64_t offset = 0; offset < kFloodBytes; offset += chunk.size()) {
      for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = FloodByte(offset + i, stream);
      for (std::string_view rest = chunk; !rest.empty();) {
        const ssize_t written = ::write(fd, rest.data(), rest.size());
        if (written <= 0) return false;
        rest.remove_prefix(static_cast<size_t>(written));
      }
    }
    return true;
  };
  bool err_ok = false;
  std::thread err([&] { err_ok = write_stream(2, 1); });
  const bool out_ok = write_stream(1, 0);
  err.join();
  return out_ok && err_ok ? 0 : 1;
}

std::string StartFailure(int number) { return std::string("create shell process failed: ") + std::strerror(number); }

TEST(NativeProcessStart, RefusalsAndFailedExecsLeaveNoChild) {
  const TempDir temp;
  const std::string dir = temp.path();
  const std::string file = temp.WriteFile("file", "x");
  const std::string not_executable = temp.WriteFile("plain", "#!/bin/sh\nexit 0\n");
  const std::string bad_interpreter = temp.WriteFile("script", "#!/nonexistent/interp\n");
  ASSERT_EQ(::chmod(not_executable.c_str(), 0644) | ::chmod(bad_interpreter.c_str(), 0755), 0);
  const struct {
    std::string executable, cwd;
    int32_t category, code;
    std::string message;
  } cases[] = {
      {"", "", 7, 1, "shell executable path is empty"},
      {"/bin/true", "relative/dir", 7, 1, "cwd must be an absolute path: relative/dir"},
      {"/bin/true", dir + "/missing", 7, 1, "cwd does not exist: " + dir + "/missing"},
      {"/bin/true", file, 7, 1, "cwd is not a directory: " + file},
      {dir + "/missing", "", 6, ENOENT, StartFailure(ENOENT)},
      {"quay-no-such-program", "", 6, ENOENT, StartFailure(ENOENT)},
      {not_executable, "", 6, EACCES, StartFailure(EACCES)},
      {dir, "", 6, EACCES, StartFailure(EACCES)},
      {bad_interpreter, "", 6, ENOENT, StartFailure(ENOENT)},
  };
  for (const uint32_t transport : {0u, 2u}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.executable + " in '" + c.cwd + "' transport " + std::to_string(transport));
      const auto process = CreateNativeProcess();
      uint32_t exit_code = 0;
      ExpectError(process->Wait(1000, exit_code), 3, 0, "wait requested for a process that is not running");
      process_runtime::ProcessLaunchOptions options;
      options.executable = c.executable;
      options.cwd = c.cwd;
      options.transport = transport;
      ExpectError(process->Start(options), c.category, c.code, c.message);
      ExpectError(process->Wait(1000, exit_code), 3, 0, "wait requested for a process that is not running");
    }
  }
  EXPECT_FALSE(HasChildren());
}

// The child inherits nothing of the host's state: descriptors without close-on-exec, a blocked
// signal, an ignored SIGPIPE, the host's group. It gets its arguments, cwd and environment.
TEST(NativeProcessStart, ChildSeesOnlyWhatItIsGiven) {
  const TempDir temp;
  std::vector<ScopedFd> leaked;
  for (int i = 0; i < 300; ++i) leaked.emplace_back(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(leaked.back().valid());
  sigset_t blocked, old_mask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &old_mask), 0);
  struct sigaction ignore{}, old_pipe{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old_pipe), 0);
  ASSERT_EQ(::setenv("QUAY_TEST_INHERITED", "yes", 1), 0);

  const std::string self = SelfExecutable();
  const std::string flag = TestChildArguments("describe")[0];
  const struct {
    std::vector<std::string> arguments, pipe_arguments;
    uint32_t environment_mode;
    std::string base_env;
    std::vector<std::string> argv;
    bool inherits;
  } cases[] = {
      {{flag, "a", "b c", ""}, {}, 0, "", {self, flag, "a", "b c", ""}, true},
      {{flag, "terminal"}, {flag, "pipe"}, 1, R"({"QUAY_TEST_EXTRA":"x"})", {self, flag, "pipe"}, false},
  };
  for (const auto containment : kAllContainments) {
    const ScopedContainment scoped(containment);
    for (const auto& c : cases) {
      SCOPED_TRACE("containment " + std::to_string(static_cast<int>(containment)));
      process_runtime::ProcessLaunchOptions options = TestChildOptions("describe");
      options.arguments = c.arguments;
      options.pipe_arguments = c.pipe_arguments;
      options.environment_mode = c.environment_mode;
      options.base_env = c.base_env;
      options.cwd = temp.path();
      const FinishedChild child = RunToEnd(options);
      ASSERT_EQ(child.exit_code, 0u) << child.err;
      const nlohmann::json view = nlohmann::json::parse(child.out);
      EXPECT_EQ(view["argv"].get<std::vector<std::string>>(), c.argv);
      EXPECT_EQ(view["fds"], nlohmann::json({0, 1, 2}));
      EXPECT_TRUE(view["empty_mask"]);
      EXPECT_TRUE(view["sigpipe_default"]);
      EXPECT_TRUE(view["group_leader"]);
      EXPECT_EQ(view["cwd"], std::filesystem::canonical(temp.path()).string());
      EXPECT_EQ(view["env"].contains("QUAY_TEST_INHERITED"), c.inherits);
      EXPECT_EQ(view["env"].value("QUAY_TEST_EXTRA", ""), c.inherits ? "" : "x");
      EXPECT_EQ(view["env"].value("PATH", ""), ::getenv("PATH"));
    }
  }
  ::unsetenv("QUAY_TEST_INHERITED");
  ::sigaction(SIGPIPE, &old_pipe, nullptr);
  ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
}

// The last case runs a bare name, found on PATH and left bare in argv.
TEST(NativeProcessWait, ExitCodesSignalsAndABareName) {
  const struct {
    const char *executable, *script;
    uint32_t exit_code;
    const char* out;
  } cases[] = {{"/bin/sh", "exit 0", 0, ""},         {"/bin/sh", "exit 42", 42, ""},
               {"/bin/sh", "kill -TERM $$", 143, ""}, {"/bin/sh", "kill -USR1 $$", 138, ""},
               {"sh", "echo \"$0\"", 0, "sh\n"}};
  for (const auto containment : kAllContainments) {
    const ScopedContainment scoped(containment);
    for (const auto& c : cases) {
      process_runtime::ProcessLaunchOptions options = ShellOptions(c.script);
      options.executable = c.executable;
      const FinishedChild child = RunToEnd(options);
      EXPECT_EQ(child.exit_code, c.exit_code) << c.script << " containment " << static_cast<int>(containment);
      EXPECT_EQ(child.out, c.out) << c.script;
    }
  }
}

// A child that sleeps and never reads: waits and stdin writes time out (a zero timeout waits
// 100 ms), and a cancel ends an idle read and every later one.
TEST(NativeProcess, ASleepingChildTimesOutWaitsAndWritesAndReadsEndOnCancel) {
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(ShellOptions("exec sleep 30")).ok);
  for (const uint64_t timeout_ms : {0ull, 300ull}) {
    const auto started = Clock::now();
    uint32_t exit_code = 0;
    ExpectError(process->Wait(timeout_ms, exit_code), 1, 5, "timed out waiting for process exit");
    const auto waited = Clock::now() - started;
    EXPECT_GE(waited, milliseconds(std::max<uint64_t>(timeout_ms, 100) - 5)) << timeout_ms;
    EXPECT_LT(waited, milliseconds(std::max<uint64_t>(timeout_ms, 100) + 1000)) << timeout_ms;
  }
  auto started = Clock::now();
  ExpectError(process->WriteStdin(std::string(16 << 20, 'x')), 1, 5, "timed out writing shell stdin");
  EXPECT_GE(Clock::now() - started, 4500ms);
  EXPECT_LT(Clock::now() - started, 8s);
  {
    StreamCollector out(*process, Stream::kStdout);
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(out.WaitForEnd(0ms));
    process->CancelReads();
    EXPECT_TRUE(out.WaitForEnd(1s));
    EXPECT_EQ(out.Text(), "");
  }
  char buffer[16];
  process_runtime::OutputRead read;
  started = Clock::now();
  ASSERT_TRUE(process->ReadStderr(buffer, sizeof buffer, read).ok);
  EXPECT_TRUE(read.eof);
  EXPECT_LT(Clock::now() - started, 1s);
  EXPECT_EQ(TerminateAndWait(*process), 137u);
}

TEST(NativeProcessStdin, EchoedUntilClosedThenRefused) {
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(ShellOptions("exec cat")).ok);
  std::string sent = "hello\n";
  // More than a pipe holds, so the write has to wait for the child to take it.
  for (int i = 0; sent.size() < (1 << 20); ++i) sent += std::to_string(i) + "\n";
  {
    StreamCollector out(*process, Stream::kStdout);
    ASSERT_TRUE(process->WriteStdin("hello\n").ok);
    ASSERT_TRUE(process->WriteStdin(std::string_view(sent).substr(6)).ok);
    process->CloseStdin();
    process->CloseStdin();
    ExpectError(process->WriteStdin("late\n"), 7, 1, "shell stdin is closed");
    EXPECT_TRUE(out.WaitForEnd(10s));
    EXPECT_TRUE(out.Text() == sent) << out.Text().size() << " of " << sent.size() << " bytes";
  }
  EXPECT_EQ(WaitForExit(*process), 0u);
}

TEST(NativeProcessRead, FloodOnBothStreamsArrivesWhole) {
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(TestChildOptions("flood")).ok);
  uint64_t received[2] = {0, 0};
  uint64_t mismatches[2] = {0, 0};
  const auto checker = [&](int stream) {
    return [&, stream](std::string_view chunk) {
      for (const char byte : chunk) mismatches[stream] += byte != FloodByte(received[stream]++, stream);
    };
  };
  {
    StreamCollector out(*process, Stream::kStdout, checker(0));
    StreamCollector err(*process, Stream::kStderr, checker(1));
    EXPECT_TRUE(out.WaitForEnd(60s));
    EXPECT_TRUE(err.WaitForEnd(60s));
  }
  EXPECT_EQ(WaitForExit(*process), 0u);
  for (const int stream : {0, 1}) {
    EXPECT_EQ(received[stream], kFloodBytes) << stream;
    EXPECT_EQ(mismatches[stream], 0u) << stream;
  }
}

TEST(NativeProcessStart, AThousandLaunchesLeaveNoDescriptorThreadOrChild) {
  const auto launch = [] {
    const auto process = CreateNativeProcess();
    process_runtime::ProcessLaunchOptions options;
    options.executable = "/bin/true";
    options.transport = 0;
    uint32_t exit_code = 1;
    return process->Start(options).ok && process->Wait(5000, exit_code).ok && exit_code == 0;
  };
  // The first launch may start what the runtime keeps for all later ones.
  ASSERT_TRUE(launch());
  const size_t fds = CountSelfEntries("fd");
  const size_t threads = CountSelfEntries("task");
  for (int i = 1; i < 1000; ++i) ASSERT_TRUE(launch()) << i;
  EXPECT_EQ(CountSelfEntries("fd"), fds);
  EXPECT_EQ(CountSelfEntries("task"), threads);
  EXPECT_FALSE(HasChildren());
}

}  // namespace

QUAY_TEST_MAIN_WITH_CHILDREN()
