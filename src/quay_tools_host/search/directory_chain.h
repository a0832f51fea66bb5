// A chain of open directories from a root down, each opened from the one above without
// following a link, so what is looked up through the chain lies where the chain says.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include "quay_tools_host/search/directory_listing.h"

namespace brimo_stack::quay_tools_host::internal {

class DirectoryChain {
 public:
  DirectoryChain();
  ~DirectoryChain();
  DirectoryChain(const DirectoryChain&) = delete;
  DirectoryChain& operator=(const DirectoryChain&) = delete;

  // Opens `root`, a real path, with no link on the way; the chain is then the root alone.
  [[nodiscard]] std::error_code OpenRoot(const std::filesystem::path& root);
  // Whether the root's path still names the directory that was opened.
  [[nodiscard]] std::error_code RootInPlace(bool& in_place) const;
  // Directories below the root.
  [[nodiscard]] size_t depth() const;
  // Opens `name` below the deepest directory. A link, or anything but a directory, is
  // not_a_directory; the chain stays as it was on any error.
  [[nodiscard]] std::error_code Push(std::string_view name);
  // Keeps the root and the first `depth` directories.
  void Truncate(size_t depth);
  // Whether the directory at `level` (1 for the first below the root) is still the entry of
  // its name in the directory above, not replaced, not a link.
  [[nodiscard]] std::error_code LevelInPlace(size_t level, bool& in_place) const;
  // The type of `name` in the deepest directory, a link not followed.
  [[nodiscard]] std::error_code TypeOf(std::string_view name, DirectoryEntryType& type) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace brimo_stack::quay_tools_host::internal
