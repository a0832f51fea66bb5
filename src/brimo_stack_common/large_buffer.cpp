// Growth of large strings with the memory advice given before the first byte lands.
#include "brimo_stack_common/large_buffer.h"

#include <algorithm>

namespace brimo_stack {

void ReserveLargeString(std::string& text, size_t capacity, size_t filled) {
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
  AdviseLargeBuffer(grown.data(), grown.capacity(), std::min(filled, grown.capacity()));
  grown.append(text);
  text.swap(grown);
}

}  // namespace brimo_stack
