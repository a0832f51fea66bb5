// Launch options, output readers and process table looks for the process runtime tests.
#include "support/native_process_helpers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "support/test_child.h"

namespace quay_test {

process_runtime::ProcessLaunchOptions TestChildOptions(const std::string& name, const std::vector<std::string>& args,
                                                       uint32_t transport) {
  process_runtime::ProcessLaunchOptions options;
  options.executable = SelfExecutable();
  options.arguments = TestChildArguments(name, args);
  options.transport = transport;
  return options;
}

process_runtime::ProcessLaunchOptions ShellOptions(const std::string& script) {
  process_runtime::ProcessLaunchOptions options;
  options.executable = "/bin/sh";
  options.arguments = {"-c", script};
  options.transport = 0;
  return options;
}

StreamCollector::StreamCollector(process_runtime::INativeProcess& process, Stream stream,
                                 std::function<void(std::string_view)> sink)
    : process_(process), sink_(std::move(sink)), thread_([this, stream] {
        std::vector<char> buffer(64 * 1024);
        for (bool ended = false; !ended;) {
          process_runtime::OutputRead read;
          const brimo_stack::CommandResult result = stream == Stream::kStdout
                                                        ? process_.ReadStdout(buffer.data(), buffer.size(), read)
                                                        : process_.ReadStderr(buffer.data(), buffer.size(), read);
          EXPECT_TRUE(result.ok) << (result.ok ? "" : result.error->message);
          const std::string_view chunk(buffer.data(), read.bytes_read);
          if (sink_ && !chunk.empty()) sink_(chunk);
          ended = !result.ok || read.eof;
          const std::lock_guard lock(mutex_);
          if (!sink_) text_.append(chunk);
          ended_ = ended;
          changed_.notify_all();
        }
      }) {}

StreamCollector::~StreamCollector() {
  if (!WaitForEnd(std::chrono::seconds(5))) {
    ADD_FAILURE() << "output did not end";
    process_.CancelReads();
  }
  thread_.join();
}

bool StreamCollector::WaitUntil(const std::function<bool(const std::string&)>& done, milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return done(text_); });
}

bool StreamCollector::WaitForText(std::string_view needed, milliseconds timeout) {
  return WaitUntil([&](const std::string& text) { return text.find(needed) != std::string::npos; }, timeout);
}

bool StreamCollector::WaitForEnd(milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return ended_; });
}

std::string StreamCollector::Text() {
  const std::lock_guard lock(mutex_);
  return text_;
}

FinishedChild RunToEnd(const process_runtime::ProcessLaunchOptions& options) {
  FinishedChild finished;
  const auto process = process_runtime::CreateNativeProcess();
  const brimo_stack::CommandResult started = process->Start(options);
  EXPECT_TRUE(started.ok) << (started.ok ? "" : started.error->message);
  if (!started.ok) return finished;
  {
    StreamCollector out(*process, Stream::kStdout);
    StreamCollector err(*process, Stream::kStderr);
    EXPECT_TRUE(out.WaitForEnd(std::chrono::seconds(30)) && err.WaitForEnd(std::chrono::seconds(30)));
    finished.out = out.Text();
    finished.err = err.Text();
  }
  EXPECT_TRUE(process->Wait(30000, finished.exit_code).ok);
  return finished;
}

uint32_t WaitForExit(process_runtime::INativeProcess& process) {
  uint32_t exit_code = UINT32_MAX;
  EXPECT_TRUE(process.Wait(5000, exit_code).ok);
  return exit_code;
}

uint32_t TerminateAndWait(process_runtime::INativeProcess& process) {
  process.Terminate();
  return WaitForExit(process);
}

void ExpectError(const brimo_stack::CommandResult& result, int32_t category, int32_t code, const std::string& message) {
  ASSERT_FALSE(result.ok) << message;
  EXPECT_EQ(result.error->category, category) << message;
  EXPECT_EQ(result.error->code, code) << message;
  EXPECT_EQ(result.error->message, message);
}

bool HasChildren() {
  siginfo_t info{};
  // WNOWAIT leaves a zombie where it is: this only looks.
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool EndsWithin(pid_t pid, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    // The state letter follows the name, which is in parentheses and may hold anything.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line) || line.rfind(')') + 2 >= line.size()) return true;
    const char state = line[line.rfind(')') + 2];
    if (state == 'Z' || state == 'X') return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(10));
  }
}

size_t CountSelfEntries(const char* folder) {
  const std::filesystem::directory_iterator entries(std::string("/proc/self/") + folder);
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace quay_test
