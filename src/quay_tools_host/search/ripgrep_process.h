// One run of rg: started on the pipe road, its two outputs read with fixed limits on threads of
// their own, waited for against a time limit, and stopped for good when it overruns.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "process_runtime/native_process.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr uint64_t kGrepStdoutLimit = 4194304;
inline constexpr uint64_t kRipgrepStderrLimit = 65536;

struct RipgrepOutput {
  bool stdout_truncated = false;
  // rg failed, and every line of its stderr named an unreadable path below the root.
  bool permission_errors_only = false;
  std::string stdout_text;
  std::string stderr_text;
};

struct RipgrepRun {
  std::filesystem::path rg_path;
  std::vector<std::string> arguments;
  std::filesystem::path cwd;
  // The search target, against which stderr's permission lines are judged.
  std::filesystem::path root;
  std::string_view base_env;
  uint32_t environment_mode = 0;
  uint64_t timeout_ms = 0;
  uint64_t stdout_limit = kGrepStdoutLimit;
  std::string_view sbox_log_dir;
  std::string_view sbox_dump_dir;
};

// Which command a run serves: the words of its logs and of its time-limit failure.
enum class RipgrepOperation { kGrep, kGlob };

// Reads the child's stdout on the reader thread until eof, a failure, or a stop of its own.
using RipgrepStdoutConsumer = std::function<CommandResult(process_runtime::INativeProcess&)>;

// How a started child ended, for the caller's own decision table. Only what a finished reader
// wrote is here; an unfinished reader counts as done=false with empty text.
struct RipgrepRunEnd {
  CommandResult first_wait;  // the child's own end, or why waiting for it failed
  uint32_t exit_code = 0;
  CommandResult drain;
  bool stdout_done = false;
  bool stderr_done = false;
  CommandResult stdout_status;
  CommandResult stderr_status;
  bool stderr_truncated = false;
  RipgrepOutput output;
};

// Starts rg, reads stdout with `consumer` (or the capped reader into output.stdout_text when
// empty) and stderr with its cap, waits with the run's time limit and stops a child that
// overruns. A failed Start is returned as it is, with `started` false; afterwards the run
// always succeeds and `end` tells the rest.
[[nodiscard]] CommandResult RunRipgrepChild(const RipgrepRun& run, RipgrepOperation operation,
                                            RipgrepStdoutConsumer consumer, bool& started, RipgrepRunEnd& end);

// Success for exit codes 0 and 1, and for a failing exit whose stderr lists only unreadable
// paths below the root (then `permission_errors_only`). A failed run leaves `output` empty
// of meaning: callers drop it.
[[nodiscard]] CommandResult RunRipgrepProcess(const RipgrepRun& run, RipgrepOutput& output);

// "<head>: rg exited unsuccessfully" for a stderr of line ends only, else "<head>: " and the
// stderr text without its trailing line ends; category 7, code 1.
[[nodiscard]] CommandResult RipgrepExitFailure(std::string_view head, std::string_view stderr_text);

// Whether every non-empty stderr line reads "rg: <path>: <permission error>" for a path strictly
// below `root`, or at or below it with `root_counts`; false for an empty or truncated stderr.
[[nodiscard]] bool IsPermissionOnlyStderr(std::string_view stderr_text, bool stderr_truncated,
                                          const std::filesystem::path& root, bool root_counts = false);

}  // namespace brimo_stack::quay_tools_host::internal
