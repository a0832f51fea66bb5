// The portable half of the write-path walks: the list of ancestors and the order of the steps.
#include "quay_tools_host/writes/write_path_checks.h"

#include <algorithm>

namespace brimo_stack::quay_tools_host::internal {

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
