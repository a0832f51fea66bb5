// The portable half of the write-path walks: the list of ancestors, the order of the steps and
// the walk of existing elements.
#include "quay_tools_host/writes/write_path_checks.h"

#include <algorithm>
#include <system_error>

namespace brimo_stack::quay_tools_host::internal {
namespace {

CommandResult Refusal(std::string_view text, const std::filesystem::path& path, const PathWalkWords& words) {
  return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(text) + path.string());
}

}  // namespace

const PathWalkWords& PathWalkWordsFor(FileErrorKind kind) {
  return kind == FileErrorKind::kExportFileFailed || kind == FileErrorKind::kInvalidExportPath ? kExportPathWords
                                                                                                : kWritePathWords;
}

std::vector<std::filesystem::path> ListPathsFromTop(const std::filesystem::path& path,
                                                    const std::filesystem::path& root) {
  std::vector<std::filesystem::path> paths;
  std::filesystem::path current = path;
  while (!current.empty()) {
    paths.push_back(current);
    if (!root.empty() && current == root) {
      break;
    }
    std::filesystem::path parent = current.parent_path();
    if (parent == current) {
      break;
    }
    current = std::move(parent);
  }
  std::reverse(paths.begin(), paths.end());
  return paths;
}

CommandResult CheckWritePathComponents(const std::filesystem::path& path, const std::filesystem::path& root,
                                       const PathWalkWords& words, LastPathElement last) {
  const std::vector<std::filesystem::path> elements = ListPathsFromTop(path, root);
  for (size_t index = 0; index < elements.size(); ++index) {
    const std::filesystem::path& element = elements[index];
    std::error_code error;
    // The link's own status, so that a dangling link is seen as a link and not as a gap.
    const std::filesystem::file_status status = std::filesystem::symlink_status(element, error);
    if (status.type() == std::filesystem::file_type::none) {
      return MakeFileErrorFromErrorCode(words.refusal_kind, words.inspect_stage, error);
    }
    if (status.type() == std::filesystem::file_type::not_found) {
      continue;
    }
    if (status.type() == std::filesystem::file_type::symlink) {
      return Refusal(words.contains_link, element, words);
    }
    if (index + 1 == elements.size() && last == LastPathElement::kNotALink) {
      break;
    }
    // Its type again, now that it must be a directory: what stood there may have been
    // replaced since the first look.
    const std::filesystem::file_status again = std::filesystem::symlink_status(element, error);
    if (again.type() == std::filesystem::file_type::none) {
      return MakeFileErrorFromErrorCode(words.refusal_kind, words.inspect_parent_stage, error);
    }
    if (again.type() == std::filesystem::file_type::symlink) {
      return Refusal(words.contains_link, element, words);
    }
    if (again.type() != std::filesystem::file_type::directory) {
      return Refusal(words.not_directory, element, words);
    }
  }
  return CommandResult::Success();
}

CommandResult EnsureWritePathParents(const std::filesystem::path& path, const std::filesystem::path& root) {
  const std::filesystem::path parent = path.parent_path();
  if (!parent.empty()) {
    CommandResult ensured = EnsureParentDirectories(parent, root);
    if (!ensured.ok) {
      return ensured;
    }
  }
  return CheckWritePathComponents(path, root);
}

}  // namespace brimo_stack::quay_tools_host::internal
