// Launch options, output readers and process table looks for the process runtime tests.
#include "support/native_process_helpers.h"

#include <gtest/gtest.h>
#include <unistd.h>

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
    : process_(process), sink_(std::move(sink)), thread_([this, stream] { Run(stream); }) {}

StreamCollector::~StreamCollector() {
  if (!WaitForEnd(std::chrono::seconds(5))) {
    ADD_FAILURE() << "output did not end";
    process_.CancelReads();
  }
  thread_.join();
}

void StreamCollector::Run(Stream stream) {
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    process_runtime::OutputRead read;
    const brimo_stack::CommandResult result = stream == Stream::kStdout
                                                  ? process_.ReadStdout(buffer.data(), buffer.size(), read)
                                                  : process_.ReadStderr(buffer.data(), buffer.size(), read);
    EXPECT_TRUE(result.ok) << (result.ok ? "" : result.error->message);
    const std::string_view chunk(buffer.data(), read.bytes_read);
    if (sink_ && !chunk.empty()) sink_(chunk);
    const std::lock_guard lock(mutex_);
    bytes_ += chunk.size();
    if (!sink_) text_.append(chunk);
    if (!result.ok || read.eof) {
      ended_ = true;
    }
    changed_.notify_all();
    if (ended_) return;
  }
}

bool StreamCollector::WaitForText(std::string_view needed, milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return text_.find(needed) != std::string::npos; });
}

bool StreamCollector::WaitForEnd(milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return ended_; });
}

std::string StreamCollector::Text() {
  const std::lock_guard lock(mutex_);
  return text_;
}

uint64_t StreamCollector::Bytes() {
  const std::lock_guard lock(mutex_);
  return bytes_;
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
    EXPECT_TRUE(out.WaitForEnd(std::chrono::seconds(30)));
    EXPECT_TRUE(err.WaitForEnd(std::chrono::seconds(30)));
    finished.out = out.Text();
    finished.err = err.Text();
  }
  const brimo_stack::CommandResult waited = process->Wait(30000, finished.exit_code);
  EXPECT_TRUE(waited.ok) << (waited.ok ? "" : waited.error->message);
  return finished;
}

namespace {

// The state letter and parent of /proc/<pid>/stat; the name in parentheses may hold anything.
bool ReadStat(pid_t pid, char& state, pid_t& parent) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(file, line)) return false;
  const size_t close = line.rfind(')');
  if (close == std::string::npos || close + 4 >= line.size()) return false;
  state = line[close + 2];
  parent = static_cast<pid_t>(std::stol(line.substr(close + 4)));
  return true;
}

}  // namespace

std::vector<pid_t> ChildrenOfThisProcess() {
  std::vector<pid_t> children;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    char state = 0;
    pid_t parent = 0;
    if (ReadStat(static_cast<pid_t>(std::stol(name)), state, parent) && parent == ::getpid()) {
      children.push_back(static_cast<pid_t>(std::stol(name)));
    }
  }
  return children;
}

bool EndsWithin(pid_t pid, milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    char state = 0;
    pid_t parent = 0;
    if (!ReadStat(pid, state, parent) || state == 'Z' || state == 'X') return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(10));
  }
}

size_t CountSelfEntries(const char* folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(std::string("/proc/self/") + folder)) {
    ++count;
  }
  return count;
}

}  // namespace quay_test
