// Opening a write's directory with RESOLVE_NO_SYMLINKS, or one component at a time where the
// kernel lacks openat2.
#include "quay_tools_host/writes/write_directory_posix.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace brimo_stack::quay_tools_host::internal {
namespace {

int RetryOpenAt(int dir_fd, const char* name, int flags) {
  int fd = -1;
  do {
    fd = ::openat(dir_fd, name, flags);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int OpenAt2(int dir_fd, const char* relative, uint64_t resolve) {
  open_how how{};
  how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  how.resolve = resolve;
  long fd = -1;
  do {
    fd = ::syscall(SYS_openat2, dir_fd, relative, &how, sizeof(how));
  } while (fd < 0 && errno == EINTR);
  return static_cast<int>(fd);
}

// The same walk as RESOLVE_NO_SYMLINKS, by hand: each component opened without following it.
int OpenByComponents(int anchor_fd, const std::filesystem::path& relative) {
  int current = RetryOpenAt(anchor_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (current < 0) {
    return -1;
  }
  for (const std::filesystem::path& component : relative) {
    if (component.empty() || component == ".") {
      continue;
    }
    const int next = RetryOpenAt(current, component.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
    if (next < 0) {
      int error = errno;
      struct stat info {};
      if (error == ENOTDIR && ::fstatat(current, component.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISLNK(info.st_mode)) {
        error = ELOOP;
      }
      ::close(current);
      errno = error;
      return -1;
    }
    ::close(current);
    current = next;
  }
  const int fd = RetryOpenAt(current, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int error = errno;
  ::close(current);
  errno = error;
  return fd;
}

}  // namespace

WriteDirectory::~WriteDirectory() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

WriteDirectory::WriteDirectory(WriteDirectory&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

WriteDirectory& WriteDirectory::operator=(WriteDirectory&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

int WriteDirectory::Open(const std::filesystem::path& directory, const std::filesystem::path& root) {
  int anchor_fd = AT_FDCWD;
  std::filesystem::path relative = directory;
  int owned_anchor = -1;
  uint64_t resolve = RESOLVE_NO_SYMLINKS;
  if (!root.empty()) {
    const std::filesystem::path above_root = root.parent_path();
    owned_anchor = RetryOpenAt(AT_FDCWD, above_root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (owned_anchor < 0) {
      return errno;
    }
    anchor_fd = owned_anchor;
    relative = directory.lexically_relative(above_root);
    resolve |= RESOLVE_BENEATH;
    if (relative.empty()) {
      ::close(owned_anchor);
      return EXDEV;
    }
  }
  int fd = OpenAt2(anchor_fd, relative.c_str(), resolve);
  int error = fd < 0 ? errno : 0;
  if (fd < 0 && (error == ENOSYS || error == EPERM)) {
    // No openat2 here (an old kernel or a filter that refuses it).
    fd = OpenByComponents(anchor_fd, relative);
    error = fd < 0 ? errno : 0;
  }
  if (owned_anchor >= 0) {
    ::close(owned_anchor);
  }
  if (fd < 0) {
    return error;
  }
  if (fd_ >= 0) {
    ::close(fd_);
  }
  fd_ = fd;
  return 0;
}

std::string WriteDirectory::EntryPath(const std::string& name) const {
  return "/proc/self/fd/" + std::to_string(fd_) + "/" + name;
}

int WriteDirectory::Sync() const {
  // EINTR is retried; any other failure is final, never retried into a false success.
  while (::fsync(fd_) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

CommandResult WriteDirectoryOpenError(int error, const std::filesystem::path& directory,
                                      const std::filesystem::path& reported, FileErrorKind kind) {
  if (error == ELOOP || error == EXDEV) {
    return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                         "write path contains a reparse point: " + reported.string());
  }
  if (error == ENOTDIR) {
    return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                         "write path parent is not a directory: " + reported.string());
  }
  return MakeFileError(kind, kCategorySystem, error,
                       FormatSystemError("inspect parent directory " + directory.string(), error));
}

}  // namespace brimo_stack::quay_tools_host::internal
