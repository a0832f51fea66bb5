// What of the access policy rg can be told on its command line: the blacklist as exclusion
// globs, and whether the whitelist covers a whole search root.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr size_t kMaxPolicyGlobFilters = 256;

struct PolicyGlobFilter {
  bool case_sensitive = false;
  std::string glob;
  [[nodiscard]] bool operator<(const PolicyGlobFilter& other) const;
};

// Appends "--glob"/"--iglob" and "!<glob>" pairs, anchored at `root` (rg's working directory),
// for the blacklist patterns that reach below it and that no allow pattern reopens; none at all
// when there would be more than kMaxPolicyGlobFilters.
[[nodiscard]] CommandResult AppendPolicyGlobFilters(const std::filesystem::path& root,
                                                    const FileAccessPolicyConfig& policy,
                                                    std::vector<std::string>& arguments);

// True when a whitelist or read-only pattern "<dir>/*" without other wildcards holds `root`, or
// both lists are empty.
[[nodiscard]] bool IsRootRecursivelyCovered(const std::filesystem::path& root, const FileAccessPolicyConfig& policy);

// A '\' in front of each of "![]{}\".
[[nodiscard]] std::string EscapeGlobLiteral(std::string_view text);

}  // namespace brimo_stack::quay_tools_host::internal
