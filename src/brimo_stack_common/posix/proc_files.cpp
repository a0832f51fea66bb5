// What the host reads from /proc.
#include "brimo_stack_common/posix/proc_files.h"

#include <unistd.h>

#include <cerrno>
#include <climits>

namespace brimo_stack {

std::string DescriptorProcPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

CommandResult ReadDescriptorPath(int fd, std::string_view stage, std::string& out) {
  const std::string link = DescriptorProcPath(fd);
  // A name may exceed PATH_MAX when it was reached by descriptors; the buffer grows to fit.
  for (size_t size = PATH_MAX; size <= 16 * PATH_MAX; size *= 2) {
    std::string buffer(size, '\0');
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) {
      const int error = errno;
      if (CommandResult proc = RequireProcFileSystem(stage); !proc.ok) {
        return proc;
      }
      return MakeSystemCommandError(stage, error);
    }
    if (static_cast<size_t>(length) < buffer.size()) {
      buffer.resize(static_cast<size_t>(length));
      if (buffer.empty() || buffer.front() != '/') {
        // Sockets and pipes are named "socket:[N]": no path at all.
        return MakeSystemCommandError(stage, ENOENT);
      }
      out = std::move(buffer);
      return CommandResult::Success();
    }
  }
  return MakeSystemCommandError(stage, ENAMETOOLONG);
}

CommandResult RequireProcFileSystem(std::string_view stage) {
  if (::access("/proc/self/fd", F_OK) == 0) {
    return CommandResult::Success();
  }
  std::string message(stage);
  message += " failed: /proc is not mounted";
  return CommandResult::Failure(kCategorySystem, ENOENT, std::move(message));
}

}  // namespace brimo_stack
