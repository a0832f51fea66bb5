// The link-free opens: openat2 where the kernel has it, the component walk elsewhere, and the
// proof of a decided file on its descriptor.
#include "quay_tools_host/files/link_free_open_posix.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "brimo_stack_common/path_text.h"
#include "brimo_stack_common/posix/proc_files.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

int OpenAt(int dir_fd, const char* name, int flags) {
  return RetryOnEintr([&] { return ::openat(dir_fd, name, flags); });
}

int OpenAt2(int dir_fd, const char* relative, int flags, uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags);
  how.resolve = resolve;
  return static_cast<int>(RetryOnEintr([&] { return ::syscall(SYS_openat2, dir_fd, relative, &how, sizeof(how)); }));
}

// The errno of a failed open of `name` below `dir_fd`, with a link reported as ELOOP the way
// openat2 reports it, not as the ENOTDIR that O_DIRECTORY gives it.
int LinkAwareError(int dir_fd, const char* name, int error) {
  struct stat info {};
  if (error == ENOTDIR && ::fstatat(dir_fd, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode)) {
    return ELOOP;
  }
  return error;
}

}  // namespace

// RESOLVE_NO_SYMLINKS by hand: every directory on the way, then the last component, opened
// with O_NOFOLLOW from the one above it.
int OpenWithoutLinksByComponents(int anchor_fd, const std::filesystem::path& relative, int flags) {
  ScopedFd current(OpenAt(anchor_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::filesystem::path pending;
  for (const std::filesystem::path& component : relative) {
    if (component.empty() || component == ".") {
      continue;
    }
    if (component == "..") {
      // Decided paths are normalised, so a step up can only be an escape from the anchor.
      errno = EXDEV;
      return -1;
    }
    if (!current.valid()) {
      return -1;
    }
    if (!pending.empty()) {
      ScopedFd next(OpenAt(current.get(), pending.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
      if (!next.valid()) {
        errno = LinkAwareError(current.get(), pending.c_str(), errno);
        return -1;
      }
      current = std::move(next);
    }
    pending = component;
  }
  if (!current.valid()) {
    return -1;
  }
  const char* name = pending.empty() ? "." : pending.c_str();
  const int fd = OpenAt(current.get(), name, flags | O_NOFOLLOW);
  if (fd < 0) {
    errno = LinkAwareError(current.get(), name, errno);
  }
  return fd;
}

int OpenWithoutLinks(int anchor_fd, const std::filesystem::path& relative, int flags, uint64_t resolve) {
  const int fd = OpenAt2(anchor_fd, relative.c_str(), flags, resolve | RESOLVE_NO_SYMLINKS);
  if (fd < 0 && (errno == ENOSYS || errno == EPERM)) {
    // No openat2 here (an old kernel or a filter that refuses it).
    return OpenWithoutLinksByComponents(anchor_fd, relative, flags);
  }
  return fd;
}

CommandResult OpenDecidedFile(const std::filesystem::path& real, int flags, std::string_view stage, ScopedFd& fd) {
  const CommandResult changed = FileChangedFailure();
  fd.Reset(OpenWithoutLinks(AT_FDCWD, real, flags | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    return error == ELOOP ? changed : MakeSystemCommandError(stage, error);
  }
  std::string where;
  if (CommandResult named = ReadDescriptorPath(fd.get(), stage, where); !named.ok) {
    fd.Reset();
    // Without /proc the open file can't be named, and that must not pass for a change.
    if (CommandResult proc = RequireProcFileSystem(stage); !proc.ok) {
      return proc;
    }
    return changed;
  }
  if (NormalizeFilePath(std::filesystem::path(std::move(where)), /*force_long=*/false).native() != real.native()) {
    fd.Reset();
    return changed;
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
