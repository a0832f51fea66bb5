// The walks that keep a write or an export from following a link: parent creation and path
// inspection from a root down.
#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

// The words of a walk's failures: a write's, or an export's.
struct PathWalkWords {
  FileErrorKind refusal_kind;             // a link or a file in the way (category 7, code 1)
  FileErrorKind failure_kind;             // a system call that failed while creating parents
  std::string_view contains_link;         // followed by the link's path
  std::string_view not_directory;         // followed by the path of what is in the way
  std::string_view inspect_stage;         // the status of an element
  std::string_view inspect_parent_stage;  // the second look at an element that must be a directory
};

inline constexpr PathWalkWords kWritePathWords{FileErrorKind::kInvalidFilePath,   FileErrorKind::kWriteFileFailed,
                                               "write path contains a reparse point: ",
                                               "write path parent is not a directory: ",
                                               "inspect write path",              "inspect write path parent"};
inline constexpr PathWalkWords kExportPathWords{FileErrorKind::kInvalidExportPath, FileErrorKind::kExportFileFailed,
                                                "export path contains a reparse point: ",
                                                "export path component is not a directory: ",
                                                "inspect export path",             "inspect export path component"};

// The export's words for an export's kind, a write's for everything else.
[[nodiscard]] const PathWalkWords& PathWalkWordsFor(FileErrorKind kind);

// `path` and its ancestors from the top down, ending (at the top) with the element that equals
// `root` or with the path that is its own parent.
[[nodiscard]] std::vector<std::filesystem::path> ListPathsFromTop(const std::filesystem::path& path,
                                                                  const std::filesystem::path& root);

// Creates what is missing of `parent` from `root` down, `root` itself included when its own
// parent exists; each level is made in a descriptor of the one above, and a link or a file in
// the way is refused, never followed. Nothing above `root` is looked at.
[[nodiscard]] CommandResult EnsureParentDirectories(const std::filesystem::path& parent,
                                                   const std::filesystem::path& root,
                                                   const PathWalkWords& words = kWritePathWords);

// What the last element of a walk must be: anything but a link (the target of a write), or a
// directory (the directory of an export).
enum class LastPathElement { kNotALink, kDirectory };

// Every existing element from `root` (or the top) down to `path` itself: no link anywhere, and
// directories above the last element.
[[nodiscard]] CommandResult CheckWritePathComponents(const std::filesystem::path& path,
                                                     const std::filesystem::path& root,
                                                     const PathWalkWords& words = kWritePathWords,
                                                     LastPathElement last = LastPathElement::kNotALink);

// EnsureParentDirectories for the parent of `path`, then CheckWritePathComponents.
[[nodiscard]] CommandResult EnsureWritePathParents(const std::filesystem::path& path,
                                                   const std::filesystem::path& root);

}  // namespace brimo_stack::quay_tools_host::internal
