// Transparent huge pages for large buffers, where the kernel has them on request.
#include "brimo_stack_common/large_buffer.h"

#include <sys/mman.h>

#include <cstdint>

namespace brimo_stack {

void AdviseLargeBuffer(void* data, size_t bytes) noexcept {
  // Only whole 2 MiB pages inside the buffer can be huge; the edges stay ordinary pages.
  constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
  const auto start = reinterpret_cast<uintptr_t>(data);
  const uintptr_t begin = (start + kHugePage - 1) & ~(kHugePage - 1);
  const uintptr_t end = (start + bytes) & ~(kHugePage - 1);
  if (bytes < kLargeBufferBytes || end <= begin) {
    return;
  }
  // A kernel without huge pages refuses with EINVAL; ordinary pages then serve as before.
  (void)::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace brimo_stack
