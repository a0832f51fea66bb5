// What the process runtime tests share: launch options for a child of this program, readers
// that drain a child's output on a thread of their own, and looks at the process table.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "process_runtime/native_process.h"

namespace quay_test {

namespace process_runtime = brimo_stack::process_runtime;
using std::chrono::milliseconds;

// Child `name` of this program (see test_child.h) on pipes, or with `transport` not 0 on a
// terminal first.
[[nodiscard]] process_runtime::ProcessLaunchOptions TestChildOptions(const std::string& name,
                                                                     const std::vector<std::string>& args = {},
                                                                     uint32_t transport = 0);
// `/bin/sh -c script` on pipes.
[[nodiscard]] process_runtime::ProcessLaunchOptions ShellOptions(const std::string& script);

enum class Stream { kStdout, kStderr };

// Reads one stream of a child on a thread of its own until end of output, into Text() or,
// when a sink is given, into the sink alone.
class StreamCollector {
 public:
  StreamCollector(process_runtime::INativeProcess& process, Stream stream,
                  std::function<void(std::string_view)> sink = {});
  // Waits for the end of output; a reader still blocked after 5 s is a failure and is cancelled.
  ~StreamCollector();
  StreamCollector(const StreamCollector&) = delete;
  StreamCollector& operator=(const StreamCollector&) = delete;

  // Whether the text holds `needed` within `timeout`.
  bool WaitForText(std::string_view needed, milliseconds timeout);
  // Whether the output ended within `timeout`.
  bool WaitForEnd(milliseconds timeout);
  [[nodiscard]] std::string Text();
  [[nodiscard]] uint64_t Bytes();

 private:
  void Run(Stream stream);

  process_runtime::INativeProcess& process_;
  std::function<void(std::string_view)> sink_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
  uint64_t bytes_ = 0;
  bool ended_ = false;
  std::thread thread_;
};

struct FinishedChild {
  std::string out;
  std::string err;
  uint32_t exit_code = 0;
};

// Starts `options`, reads both streams to their end and waits for the exit; test failures on
// the way are reported where they happen.
[[nodiscard]] FinishedChild RunToEnd(const process_runtime::ProcessLaunchOptions& options);

// Processes whose parent is this process: a reaped child is not among them, a zombie is.
[[nodiscard]] std::vector<pid_t> ChildrenOfThisProcess();
// Whether `pid` is gone or a zombie within `timeout`.
[[nodiscard]] bool EndsWithin(pid_t pid, milliseconds timeout);
// Entries of a /proc/self folder ("fd", "task").
[[nodiscard]] size_t CountSelfEntries(const char* folder);

}  // namespace quay_test
