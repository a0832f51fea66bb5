// Growth of large strings with the memory advice given before the first byte lands.
#include "brimo_stack_common/large_buffer.h"

namespace brimo_stack {

void ReserveLargeString(std::string& text, size_t capacity) {
  if (capacity <= text.capacity()) {
    return;
  }
  if (capacity < kLargeBufferBytes) {
    text.reserve(capacity);
    return;
  }
  // reserve() on an empty string allocates without copying, so the advice comes first.
  std::string grown;
  grown.reserve(capacity);
  AdviseLargeBuffer(grown.data(), grown.capacity());
  grown.append(text);
  text.swap(grown);
}

}  // namespace brimo_stack
