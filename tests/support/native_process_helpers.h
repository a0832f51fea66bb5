// What the process runtime tests share: launch options for a child of this program, a reader
// that drains one stream of a child on a thread of its own, and looks at the process table.
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
#include "process_runtime/posix/child_launcher.h"

namespace quay_test {

namespace process_runtime = brimo_stack::process_runtime;
using process_runtime::Containment;
using std::chrono::milliseconds;

// Child `name` of this program (see test_child.h); `transport` 0 runs it on pipes.
[[nodiscard]] process_runtime::ProcessLaunchOptions TestChildOptions(const std::string& name,
                                                                     const std::vector<std::string>& args = {},
                                                                     uint32_t transport = 0);
// `/bin/sh -c script` on pipes.
[[nodiscard]] process_runtime::ProcessLaunchOptions ShellOptions(const std::string& script);

// Launches in this scope use `containment`, not the strongest the machine allows: every road runs.
class ScopedContainment {
 public:
  explicit ScopedContainment(Containment containment) { process_runtime::OverrideContainment(containment); }
  ~ScopedContainment() { process_runtime::OverrideContainment(std::nullopt); }
};
inline constexpr Containment kAllContainments[] = {Containment::kProcessGroup, Containment::kPidNamespace,
                                                   Containment::kUserAndPidNamespace};
// The roads on which nothing that the child starts outlives a kill.
inline constexpr Containment kNamespaceContainments[] = {Containment::kPidNamespace, Containment::kUserAndPidNamespace};

enum class Stream { kStdout, kStderr };

// Reads one stream until end of output into Text(), or into `sink` alone when one is given.
class StreamCollector {
 public:
  StreamCollector(process_runtime::INativeProcess& process, Stream stream,
                  std::function<void(std::string_view)> sink = {});
  // Joins the reader; one still blocked after 5 s is a test failure and is cancelled.
  ~StreamCollector();

  // Whether the text collected so far satisfies `done` within `timeout`.
  bool WaitUntil(const std::function<bool(const std::string&)>& done, milliseconds timeout);
  bool WaitForText(std::string_view needed, milliseconds timeout);
  bool WaitForEnd(milliseconds timeout);
  [[nodiscard]] std::string Text();

 private:
  process_runtime::INativeProcess& process_;
  std::function<void(std::string_view)> sink_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;
  bool ended_ = false;
  std::thread thread_;
};

struct FinishedChild {
  std::string out;
  std::string err;
  uint32_t exit_code = 0;
};

// Starts `options`, reads both streams to their end and waits for the exit.
[[nodiscard]] FinishedChild RunToEnd(const process_runtime::ProcessLaunchOptions& options);
// The exit code that Wait reports within 5 s; after Terminate() for TerminateAndWait.
[[nodiscard]] uint32_t WaitForExit(process_runtime::INativeProcess& process);
[[nodiscard]] uint32_t TerminateAndWait(process_runtime::INativeProcess& process);
// A failed result with exactly this category, code and message.
void ExpectError(const brimo_stack::CommandResult& result, int32_t category, int32_t code, const std::string& message);

// Whether this process has a child, running or a zombie.
[[nodiscard]] bool HasChildren();
// Whether `pid` is gone or a zombie within `timeout`.
[[nodiscard]] bool EndsWithin(pid_t pid, milliseconds timeout);
// Entries of a /proc/self folder ("fd", "task").
[[nodiscard]] size_t CountSelfEntries(const char* folder);

}  // namespace quay_test
