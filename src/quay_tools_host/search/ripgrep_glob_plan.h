// The fixed names at the head of a glob pattern are not searched for: they are walked to, and
// the search starts below them with what is left of the pattern and of the depth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"
#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {

struct RipgrepGlobPlan {
  std::filesystem::path root;
  std::string pattern;
  // The one name to look for, when what is left is a single fixed name.
  std::optional<std::string> literal_name;
  uint64_t max_depth = 0;
  // What is left cannot reach below the root's direct entries.
  bool single_level = false;
  // Decided already: nothing can match.
  bool no_results = false;
};

// Peels the fixed prefix off `plan.pattern` below `plan.root`; meant for file-only searches.
[[nodiscard]] CommandResult BuildRipgrepGlobPlan(const FileAccessPolicy& policy, RipgrepGlobPlan& plan);

// What rg may test itself: the pattern's last name when that is fixed or "*.<ext>", escaped for
// rg's glob syntax; none otherwise, and rg then lists every file for the verifier.
[[nodiscard]] std::optional<std::string> ToRipgrepGlob(std::string_view pattern);

// The rg --files argument list of a plan, the policy's exclusion globs included.
[[nodiscard]] CommandResult BuildRipgrepGlobArguments(const RipgrepGlobPlan& plan,
                                                      const FileAccessPolicyConfig& policy,
                                                      std::vector<std::string>& arguments);

}  // namespace brimo_stack::quay_tools_host::internal
