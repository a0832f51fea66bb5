// The access policy of a request: pattern lists compiled for one mode and decided on text.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"

namespace brimo_stack::quay_tools_host::internal {

struct PolicyPattern {
  std::string raw;
  std::string normalized;
  std::string directory_prefix;  // the directory in front of a final "<separator>*"
  bool is_literal = false;
  bool has_directory_prefix = false;
};

// Compiled for one mode and one decision, then dropped.
struct FileAccessPolicy {
  bool case_sensitive = false;
  bool for_write = false;
  bool require_whitelist = false;
  std::vector<PolicyPattern> allow;
  std::vector<PolicyPattern> deny;
  std::vector<std::string> read_only_raw;
};

[[nodiscard]] FileAccessPolicy CompileFileAccessPolicy(const FileAccessPolicyConfig& config, bool for_write);
[[nodiscard]] PolicyPattern CompilePolicyPattern(std::string_view raw, bool case_sensitive);

// Category 7, code 1 with a "FILE_ACCESS_DENIED: " message on refusal.
[[nodiscard]] CommandResult CheckFileAccess(const FileAccessPolicy& policy, std::string_view path_text);

// Decides the requested path and, when it differs, the real path behind it.
[[nodiscard]] CommandResult CheckRequestPathAccess(const FileAccessPolicyConfig& config,
                                                   const std::filesystem::path& logical_path,
                                                   const std::filesystem::path& real_path, bool for_write);

// A literal allow strictly inside a literal deny reopens it; wildcards or equality never do.
[[nodiscard]] bool Overrides(const PolicyPattern& allow, const PolicyPattern& deny);

// True when everything at or below the directory passes, so a walk needs no per-entry check.
[[nodiscard]] bool IsSubtreeFullyAllowed(const FileAccessPolicy& policy, std::string_view directory_text);

[[nodiscard]] std::string NormalizePathForPolicy(std::string_view path_text, bool case_sensitive);

// '?' is one byte, '*' any run of bytes (separators included); nothing escapes.
[[nodiscard]] bool MatchWildcard(std::string_view pattern, std::string_view text);

// Platform layer of the normal form (file_access_policy_posix.cpp / _win.cpp).
namespace policy_platform {
// Long-path prefixes and separator spelling of the platform; the text as given on POSIX.
[[nodiscard]] std::string PlatformForm(std::string_view path_text);
// Case folding that cannot fail on names that are not valid UTF-8.
void FoldCase(std::string& text);
// A drive head such as "C:" keeps its separator as a prefix; POSIX has none.
[[nodiscard]] bool IsDriveHead(std::string_view head);
}  // namespace policy_platform

}  // namespace brimo_stack::quay_tools_host::internal
