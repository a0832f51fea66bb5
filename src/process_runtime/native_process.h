// The one way the system runs a program: a child on three private pipes or on a terminal, its
// output read without ever blocking past a cancellation, its end waited for and its whole tree
// ended on request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::sandbox {
class SboxSdkObject;
class SandboxAuditScope;
}  // namespace brimo_stack::sandbox

namespace brimo_stack::process_runtime {

enum class ProcessRole : uint32_t {
  kInteractiveShell = 0,
  kNonInteractiveShell = 1,
  kFileWorker = 2,
  kOneShot = 3,
  kFileSearch = 4,
};

// "interactive_shell", ..., "file_search"; any other value is "unknown".
[[nodiscard]] std::string_view ProcessRoleLogName(ProcessRole role);

struct ProcessLaunchOptions {
  ProcessRole role = ProcessRole::kOneShot;
  std::string task_id;
  std::string sdk_call_id;
  std::string instance_id;
  std::string executable;
  std::vector<std::string> arguments;
  // The pipe road's arguments when not empty; the terminal road always takes `arguments`.
  std::vector<std::string> pipe_arguments;
  std::string ready_probe_command;
  std::string cwd;
  std::string base_env;
  uint32_t environment_mode = 0;
  // 0 goes straight to pipes; any other value tries a terminal first.
  uint32_t transport = 2;
  bool sandbox = false;
  sandbox::SandboxAuditScope* audit_scope = nullptr;
  std::string sandbox_instance_id;
  std::string sandbox_child_prefix = "brimo_stack_shell";
  std::string sandbox_config;
  std::optional<uint8_t> sandbox_run_type;
  std::string sbox_log_dir;
  std::string sbox_dump_dir;
  std::shared_ptr<sandbox::SboxSdkObject> sbox_runtime;
};

struct OutputRead {
  bool eof = false;
  uint64_t bytes_read = 0;
};

struct ProcessCounts {
  uint32_t total = 0;
  uint32_t not_in_baseline = 0;
};

// One child per object: created empty, started once, used until destroyed. The owner's thread
// calls everything but the two reads, which may each run on a thread of their own; Terminate
// may also come from the stdout reader while the owner waits.
class INativeProcess {
 public:
  virtual ~INativeProcess() = default;
  [[nodiscard]] virtual CommandResult Start(const ProcessLaunchOptions& options) = 0;
  // Writes all of `text` or fails after 5 seconds without taking it.
  [[nodiscard]] virtual CommandResult WriteStdin(std::string_view text) = 0;
  virtual void CloseStdin() = 0;
  // Waits for output, end of output or CancelReads, never longer.
  [[nodiscard]] virtual CommandResult ReadStdout(char* buffer, size_t size, OutputRead& out) = 0;
  [[nodiscard]] virtual CommandResult ReadStderr(char* buffer, size_t size, OutputRead& out) = 0;
  // Ends every read that has nothing to read with end of output, now and from now on.
  virtual void CancelReads() = 0;
  // A timeout of 0 waits 100 ms. A child ended by a signal exits with 128 + the signal.
  [[nodiscard]] virtual CommandResult Wait(uint64_t timeout_ms, uint32_t& exit_code) = 0;
  [[nodiscard]] virtual CommandResult CaptureBaselineProcesses() = 0;
  [[nodiscard]] virtual CommandResult CountProcesses(ProcessCounts& counts) = 0;
  // Kills the child and everything it started; returns at once and reaps nothing.
  virtual void Terminate() = 0;
  virtual void Kill() = 0;
  [[nodiscard]] virtual uint32_t ProcessId() const = 0;
  [[nodiscard]] virtual std::string SandboxChildId() const = 0;
  [[nodiscard]] virtual bool UsesConpty() const = 0;
};

[[nodiscard]] std::unique_ptr<INativeProcess> CreateNativeProcess();

}  // namespace brimo_stack::process_runtime
