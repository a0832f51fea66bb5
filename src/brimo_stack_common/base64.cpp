// Strict base64 decoding with four shifted lookup tables.
#include "brimo_stack_common/base64.h"

#include <array>
#include <cstdint>

namespace brimo_stack {
namespace {

constexpr uint32_t kBase64Bad = 0x01000000;

// One table per position in a group, each value already shifted into place, so that a group
// decodes with four lookups, one OR and one test of the error mark.
struct Base64Tables {
  std::array<uint32_t, 256> position[4];
};

constexpr Base64Tables MakeBase64Tables() {
  Base64Tables tables{};
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (auto& table : tables.position) {
    for (auto& entry : table) {
      entry = kBase64Bad;
    }
  }
  for (uint32_t i = 0; i < kAlphabet.size(); ++i) {
    const auto c = static_cast<unsigned char>(kAlphabet[i]);
    tables.position[0][c] = i << 18;
    tables.position[1][c] = i << 12;
    tables.position[2][c] = i << 6;
    tables.position[3][c] = i;
  }
  return tables;
}

constexpr Base64Tables kBase64 = MakeBase64Tables();

}  // namespace

std::string DecodeBase64Content(std::string_view text, bool* valid) {
  if (valid != nullptr) {
    *valid = true;
  }
  if (text.empty()) {
    return {};
  }
  const auto fail = [valid]() {
    if (valid != nullptr) {
      *valid = false;
    }
    return std::string();
  };
  if (text.size() % 4 != 0) {
    return fail();
  }
  size_t length = text.size();
  if (text[length - 1] == '=') {
    --length;
    if (text[length - 1] == '=') {
      --length;
    }
  }
  std::string out;
  out.reserve(length / 4 * 3 + 2);
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    const uint32_t group = kBase64.position[0][bytes[i]] | kBase64.position[1][bytes[i + 1]] |
                           kBase64.position[2][bytes[i + 2]] | kBase64.position[3][bytes[i + 3]];
    if ((group & kBase64Bad) != 0) {
      return fail();
    }
    out.push_back(static_cast<char>(group >> 16));
    out.push_back(static_cast<char>((group >> 8) & 0xFF));
    out.push_back(static_cast<char>(group & 0xFF));
  }
  const size_t rest = length - i;
  if (rest == 1) {
    return fail();
  }
  if (rest >= 2) {
    uint32_t group = kBase64.position[0][bytes[i]] | kBase64.position[1][bytes[i + 1]];
    if (rest == 3) {
      group |= kBase64.position[2][bytes[i + 2]];
    }
    // The bits behind the last whole byte must be zero, so that each byte string has one text.
    const uint32_t pad_bits = group & (rest == 2 ? 0xFFFFu : 0xFFu);
    if ((group & kBase64Bad) != 0 || pad_bits != 0) {
      return fail();
    }
    out.push_back(static_cast<char>(group >> 16));
    if (rest == 3) {
      out.push_back(static_cast<char>((group >> 8) & 0xFF));
    }
  }
  return out;
}

}  // namespace brimo_stack
