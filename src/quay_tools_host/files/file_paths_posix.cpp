// The real path of a path or an open descriptor on POSIX, as the kernel names it.
#include "quay_tools_host/files/file_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include <fmt/format.h>

namespace brimo_stack::quay_tools_host::internal {

namespace {

class ScopedDescriptor {
 public:
  explicit ScopedDescriptor(int fd) : fd_(fd) {}
  ~ScopedDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedDescriptor(const ScopedDescriptor&) = delete;
  ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

CommandResult RealPathFailure(int error) {
  return MakeFileError(FileErrorKind::kInvalidFilePath, kCategorySystem, error,
                       FormatSystemError("resolve real path", error));
}

// The name the kernel holds for an open descriptor; grows past PATH_MAX when it must.
bool ReadDescriptorPath(int fd, std::string& out) {
  const std::string link = fmt::format("/proc/self/fd/{}", fd);
  for (size_t size = PATH_MAX; size <= 16 * PATH_MAX; size *= 2) {
    std::string buffer(size, '\0');
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) < buffer.size()) {
      buffer.resize(static_cast<size_t>(length));
      out = std::move(buffer);
      return true;
    }
  }
  return false;
}

// One attempt; `replaced` is set when the file was unlinked while it was being named.
CommandResult ResolveRealPathOnce(std::filesystem::path& path, bool& replaced) {
  replaced = false;
  // O_PATH opens directories and follows links without needing read permission on the target.
  int fd;
  do {
    fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return RealPathFailure(errno);
  ScopedDescriptor descriptor(fd);
  std::string text;
  const bool named = ReadDescriptorPath(fd, text) && !text.empty() && text.front() == '/';
  struct stat info {};
  if (::fstat(fd, &info) != 0) return RealPathFailure(errno);
  // The kernel names an unlinked file "<old path> (deleted)": that is no path at all.
  if (info.st_nlink == 0 && !S_ISDIR(info.st_mode)) {
    replaced = true;
    return RealPathFailure(ENOENT);
  }
  if (!named) {
    // Without /proc the library call still gives the answer, bounded by PATH_MAX.
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    if (resolved == nullptr) return RealPathFailure(errno);
    text = resolved.get();
  }
  path = NormalizeFilePath(std::filesystem::path(std::move(text)), /*force_long=*/false);
  return CommandResult::Success();
}

}  // namespace

CommandResult ResolveRealPath(std::filesystem::path& path) {
  // A rename over the file between the open and the naming leaves the name of a dead inode;
  // the path itself still leads somewhere, so look again.
  constexpr int kAttempts = 4;
  CommandResult result;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::filesystem::path candidate = path;
    bool replaced = false;
    result = ResolveRealPathOnce(candidate, replaced);
    if (result.ok) path = std::move(candidate);
    if (!replaced) break;
  }
  return result;
}

bool RealPathOfHandle(std::intptr_t handle, std::filesystem::path& out) {
  std::string text;
  if (!ReadDescriptorPath(static_cast<int>(handle), text) || text.empty() || text.front() != '/') return false;
  out = NormalizeFilePath(std::filesystem::path(std::move(text)), /*force_long=*/false);
  return true;
}

}  // namespace brimo_stack::quay_tools_host::internal
