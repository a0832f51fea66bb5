// The host's own ways through a tree for file_glob: the depth-first walk and the scan of one
// directory for one fixed name. Both go down through open directories, never through a name
// that could have become a link since it was listed.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/glob_pattern.h"
#include "quay_tools_host/search/glob_result_builder.h"

namespace brimo_stack::quay_tools_host::internal {

using GlobDeadline = std::chrono::steady_clock::time_point;

inline constexpr uint64_t kGlobUnlimitedDepth = UINT64_MAX;

// Lists what matches below `root` (a real path) into `builder`; the root's own entries are at
// depth 1. A failure returns no partial list: the caller drops the builder.
[[nodiscard]] CommandResult WalkGlob(const std::filesystem::path& root, const GlobPattern& pattern,
                                     const FileAccessPolicy& policy, GlobDeadline deadline, uint64_t max_depth,
                                     GlobResultBuilder& builder);

// Looks for the one regular file `name` among the direct entries of `root`.
[[nodiscard]] CommandResult ScanDirectoryForName(const std::filesystem::path& root, std::string_view name,
                                                 const FileAccessPolicy& policy, GlobDeadline deadline,
                                                 GlobResultBuilder& builder);

// Whether a link may be listed: its own path and the place it leads to both pass the policy;
// a broken link never does.
[[nodiscard]] bool IsSymlinkAccessAllowed(const FileAccessPolicy& policy, const std::filesystem::path& link_path);

// "GLOB_TIMEOUT: search exceeded timeout_ms", category 1, code 5.
[[nodiscard]] CommandResult GlobTimeoutFailure();

}  // namespace brimo_stack::quay_tools_host::internal
