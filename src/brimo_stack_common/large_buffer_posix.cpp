// Large buffers on Linux: huge pages where the kernel gives them on request, and the pages
// faulted in by one call instead of one fault every 4 KiB.
#include "brimo_stack_common/large_buffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>

namespace brimo_stack {
namespace {

constexpr uintptr_t kPageBytes = 4096;
constexpr uintptr_t kHugePageBytes = uintptr_t{2} << 20;
// MADV_POPULATE_WRITE, Linux 5.14 and later; older kernels refuse it with EINVAL.
constexpr int kPopulateWrite = 23;

void AdviseWholeUnits(uintptr_t start, uintptr_t end, uintptr_t unit, int advice) {
  const uintptr_t begin = (start + unit - 1) & ~(unit - 1);
  const uintptr_t finish = end & ~(unit - 1);
  if (finish > begin) {
    // Only a hint: a refusal leaves ordinary pages that fault in as they are touched.
    (void)::madvise(reinterpret_cast<void*>(begin), finish - begin, advice);
  }
}

}  // namespace

void AdviseLargeBuffer(void* data, size_t bytes, size_t filled) noexcept {
  if (bytes < kLargeBufferBytes) {
    return;
  }
  // Only whole pages inside the buffer are advised: the edges may share a page with other memory.
  const auto start = reinterpret_cast<uintptr_t>(data);
  AdviseWholeUnits(start, start + bytes, kHugePageBytes, MADV_HUGEPAGE);
  AdviseWholeUnits(start, start + std::min(filled, bytes), kPageBytes, kPopulateWrite);
}

}  // namespace brimo_stack
