// The descriptor owner's close.
#include "brimo_stack_common/posix/scoped_fd.h"

#include <unistd.h>

#include <cerrno>

namespace brimo_stack {

int ScopedFd::Close() noexcept {
  if (fd_ < 0) {
    return 0;
  }
  const int result = ::close(fd_);
  fd_ = -1;
  // Linux releases the descriptor even when close is interrupted, so EINTR is no failure, and
  // retrying would close a descriptor that another thread may have been given meanwhile.
  return result == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace brimo_stack
