// The decision on what rg printed: every line that names a path stands only when the policy
// allows that path as printed and as its real location.
#pragma once

#include <filesystem>
#include <string>

#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {

// Cuts `text` behind its last line feed such that the rest is valid UTF-8; empty when none.
void TrimToCompleteLines(std::string& text);

// Drops every line whose path the policy refuses, on its logical or its real path, and every
// line whose path candidates all fail to resolve; lines without a candidate stay. `base` joins
// relative paths; `target` is what rg was given.
void FilterGrepOutput(const std::filesystem::path& base, const std::filesystem::path& target,
                      const FileAccessPolicy& policy, std::string& text);

}  // namespace brimo_stack::quay_tools_host::internal
