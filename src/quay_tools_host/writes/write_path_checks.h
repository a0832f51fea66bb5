// The walks that keep a write from following a link: parent creation and path inspection.
#pragma once

#include <filesystem>
#include <vector>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

// `path` and its ancestors from the top down, ending (at the top) with the element that equals
// `root` or with the path that is its own parent.
[[nodiscard]] std::vector<std::filesystem::path> ListPathsFromTop(const std::filesystem::path& path,
                                                                  const std::filesystem::path& root);

// The component itself, never what a link there points to, must be a directory.
[[nodiscard]] CommandResult InspectDirectoryComponent(const std::filesystem::path& directory);

// Creates what is missing of `parent` from `root` down; a link or a file in the way is never
// created over.
[[nodiscard]] CommandResult EnsureParentDirectories(const std::filesystem::path& parent,
                                                   const std::filesystem::path& root);

// Every existing element from `root` (or the top) down to `path` itself: no link anywhere, and
// directories above the last element.
[[nodiscard]] CommandResult CheckWritePathComponents(const std::filesystem::path& path,
                                                     const std::filesystem::path& root);

// EnsureParentDirectories for the parent of `path`, then CheckWritePathComponents.
[[nodiscard]] CommandResult EnsureWritePathParents(const std::filesystem::path& path,
                                                   const std::filesystem::path& root);

}  // namespace brimo_stack::quay_tools_host::internal
