// Directory chains on descriptors: O_PATH opens from the level above, identities by device and
// inode, lookups of one name at a time.
#include "quay_tools_host/search/directory_chain.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/files/link_free_open_posix.h"
#include "quay_tools_host/search/posix/directory_entry_type.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::error_code ErrorOf(int number) { return {number, std::generic_category()}; }

struct OpenDirectory {
  ScopedFd fd;
  std::string name;  // its name in the directory above; empty for the root
  dev_t device = 0;
  ino_t inode = 0;
};

bool SameDirectory(const struct stat& status, const OpenDirectory& directory) {
  return S_ISDIR(status.st_mode) && status.st_dev == directory.device && status.st_ino == directory.inode;
}

// The link-free open of one directory, proved to be one by its own status.
std::error_code OpenDirectoryAt(int anchor, const std::filesystem::path& path, OpenDirectory& out) {
  ScopedFd fd(OpenWithoutLinks(anchor, path, kDirectoryFlags));
  if (!fd.valid()) return ErrorOf(errno == ELOOP ? ENOTDIR : errno);
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) return ErrorOf(errno);
  if (!S_ISDIR(status.st_mode)) return ErrorOf(ENOTDIR);
  out.fd = std::move(fd);
  out.device = status.st_dev;
  out.inode = status.st_ino;
  return {};
}

}  // namespace

struct DirectoryChain::State {
  std::string root_text;
  std::vector<OpenDirectory> levels;  // the root first
};

DirectoryChain::DirectoryChain() : state_(std::make_unique<State>()) {}
DirectoryChain::~DirectoryChain() = default;

std::error_code DirectoryChain::OpenRoot(const std::filesystem::path& root) {
  state_->levels.clear();
  OpenDirectory directory;
  if (const std::error_code error = OpenDirectoryAt(AT_FDCWD, root, directory)) return error;
  state_->root_text = root.native();
  state_->levels.push_back(std::move(directory));
  return {};
}

std::error_code DirectoryChain::RootInPlace(bool& in_place) const {
  in_place = false;
  struct stat status {};
  if (::fstatat(AT_FDCWD, state_->root_text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return ErrorOf(errno);
  in_place = SameDirectory(status, state_->levels.front());
  return {};
}

size_t DirectoryChain::depth() const { return state_->levels.empty() ? 0 : state_->levels.size() - 1; }

std::error_code DirectoryChain::Push(std::string_view name) {
  OpenDirectory directory;
  directory.name = std::string(name);
  if (const std::error_code error = OpenDirectoryAt(state_->levels.back().fd.get(), directory.name, directory)) {
    return error;
  }
  state_->levels.push_back(std::move(directory));
  return {};
}

void DirectoryChain::Truncate(size_t depth) {
  if (depth < this->depth()) state_->levels.resize(depth + 1);
}

std::error_code DirectoryChain::LevelInPlace(size_t level, bool& in_place) const {
  in_place = false;
  const OpenDirectory& directory = state_->levels[level];
  struct stat status {};
  if (::fstatat(state_->levels[level - 1].fd.get(), directory.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return ErrorOf(errno);
  }
  in_place = SameDirectory(status, directory);
  return {};
}

std::error_code DirectoryChain::TypeOf(std::string_view name, DirectoryEntryType& type) const {
  struct stat status {};
  const std::string text(name);
  if (::fstatat(state_->levels.back().fd.get(), text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return ErrorOf(errno);
  }
  type = DirectoryEntryTypeOfMode(status.st_mode);
  return {};
}

}  // namespace brimo_stack::quay_tools_host::internal
