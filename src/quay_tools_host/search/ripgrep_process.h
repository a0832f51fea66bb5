// One run of rg: started on the pipe road, its two outputs read with fixed limits on threads of
// their own, waited for against a time limit, and stopped for good when it overruns.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"

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

// Success for exit codes 0 and 1, and for a failing exit whose stderr lists only unreadable
// paths below the root (then `permission_errors_only`). A failed run leaves `output` empty
// of meaning: callers drop it.
[[nodiscard]] CommandResult RunRipgrepProcess(const RipgrepRun& run, RipgrepOutput& output);

// Whether every non-empty stderr line reads "rg: <path>: <permission error>" for a path strictly
// below `root`; false for an empty or truncated stderr.
[[nodiscard]] bool IsPermissionOnlyStderr(std::string_view stderr_text, bool stderr_truncated,
                                          const std::filesystem::path& root);

}  // namespace brimo_stack::quay_tools_host::internal
