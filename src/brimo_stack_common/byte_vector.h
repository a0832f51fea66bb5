// Sixteen bytes a step with the compiler's portable vector extension, for the byte scans of
// large texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace brimo_stack {

using ByteVector = unsigned char __attribute__((vector_size(16)));
using SignedByteVector = signed char __attribute__((vector_size(16)));
inline constexpr size_t kByteVectorBytes = sizeof(ByteVector);

inline ByteVector LoadByteVector(const char* at) {
  ByteVector bytes;
  std::memcpy(&bytes, at, kByteVectorBytes);
  return bytes;
}

inline ByteVector BroadcastByte(char value) {
  ByteVector lanes;
  for (size_t lane = 0; lane < kByteVectorBytes; ++lane) {
    lanes[lane] = static_cast<unsigned char>(value);
  }
  return lanes;
}

// One bit per lane that a comparison set (0xFF), the first lane in the lowest bit.
inline uint32_t LaneMask(ByteVector lanes) {
  uint64_t halves[2];
  std::memcpy(halves, &lanes, sizeof(halves));
  constexpr uint64_t kHighBits = 0x8080808080808080ull;
  constexpr uint64_t kGather = 0x0002040810204081ull;
  const auto low = static_cast<uint32_t>(((halves[0] & kHighBits) * kGather) >> 56);
  const auto high = static_cast<uint32_t>(((halves[1] & kHighBits) * kGather) >> 56);
  return low | (high << 8);
}

}  // namespace brimo_stack
