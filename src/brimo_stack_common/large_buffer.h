// Buffers of megabytes that are filled once: whole file texts, request frames, edited copies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace brimo_stack {

// Below this size a buffer is an ordinary allocation and no advice is given.
inline constexpr size_t kLargeBufferBytes = size_t{2} << 20;

// Tells the system that the memory is about to be filled: it may back all `bytes` by large
// pages, and maps the first `filled` bytes at once instead of taking a page fault every 4 KiB.
// Only a hint: the memory works the same without it.
void AdviseLargeBuffer(void* data, size_t bytes, size_t filled) noexcept;

// Grows `text` to a capacity of at least `capacity` bytes and keeps its contents. A large block
// is advised before the old bytes are copied into it, with `filled` bytes (the whole capacity
// unless given) known to be written soon.
void ReserveLargeString(std::string& text, size_t capacity, size_t filled = SIZE_MAX);

}  // namespace brimo_stack
