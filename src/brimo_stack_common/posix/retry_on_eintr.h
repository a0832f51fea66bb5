// The one retry of a system call that a signal interrupted.
#pragma once

#include <cerrno>

namespace brimo_stack {

// Calls `call` until it returns something other than -1 with errno EINTR, and returns that.
// errno is the failed call's own when the result is -1. Allocates nothing and takes no lock, so
// the crash handler uses it too. Not for close(2): see ScopedFd::Close.
template <typename Call>
auto RetryOnEintr(Call call) -> decltype(call()) {
  for (;;) {
    auto result = call();
    if (result != -1 || errno != EINTR) {
      return result;
    }
  }
}

}  // namespace brimo_stack
