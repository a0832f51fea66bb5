// Strict UTF-8 decoding and encoding.
#include "brimo_stack_common/utf8.h"

#include <cstring>
#include <stdexcept>

namespace brimo_stack {
namespace {

[[noreturn]] void ThrowBadConversion() { throw std::range_error("bad conversion"); }

// The code point of a sequence that WellFormedUtf8Length accepted.
uint32_t DecodeWellFormed(const char* at, size_t length) {
  const auto byte = [at](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(at[i])); };
  static constexpr uint32_t kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  uint32_t value = byte(0) & kLeadMask[length];
  for (size_t i = 1; i < length; ++i) {
    value = (value << 6) | (byte(i) & 0x3F);
  }
  return value;
}

}  // namespace

size_t WellFormedUtf8Length(const char* at, const char* end) {
  const auto byte = [at](size_t i) { return static_cast<unsigned char>(at[i]); };
  const auto available = static_cast<size_t>(end - at);
  const auto continuation = [&](size_t i, unsigned char low, unsigned char high) {
    return i < available && byte(i) >= low && byte(i) <= high;
  };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  // The ranges of the second byte rule out overlong forms (E0, F0), surrogates (ED) and values
  // above U+10FFFF (F4).
  if (lead >= 0xC2 && lead <= 0xDF) {
    return continuation(1, 0x80, 0xBF) ? 2 : 0;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
    return continuation(1, low, high) && continuation(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
    return continuation(1, low, high) && continuation(2, 0x80, 0xBF) && continuation(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

bool IsValidUtf8(std::string_view bytes) {
  const char* at = bytes.data();
  const char* const end = at + bytes.size();
  while (at != end) {
    // Runs of ASCII pass sixteen bytes a step; whole files of source text are mostly that.
    while (end - at >= 16) {
      uint64_t words[2];
      std::memcpy(words, at, sizeof(words));
      if (((words[0] | words[1]) & 0x8080808080808080ull) != 0) break;
      at += 16;
    }
    if (at == end) break;
    const size_t length = WellFormedUtf8Length(at, end);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

int Utf8SequenceLength(unsigned char lead_byte) {
  if (lead_byte < 0x80) return 1;
  if (lead_byte >= 0xC2 && lead_byte <= 0xDF) return 2;
  if (lead_byte >= 0xE0 && lead_byte <= 0xEF) return 3;
  if (lead_byte >= 0xF0 && lead_byte <= 0xF4) return 4;
  return 0;
}

size_t CompleteUtf8Prefix(std::string_view bytes) {
  // The last lead byte, if it stands within the last three bytes, may want more than is there.
  for (size_t back = 1; back <= 3 && back <= bytes.size(); ++back) {
    const auto byte = static_cast<unsigned char>(bytes[bytes.size() - back]);
    if ((byte & 0xC0) != 0x80) {
      const int length = Utf8SequenceLength(byte);
      return length > static_cast<int>(back) ? bytes.size() - back : bytes.size();
    }
  }
  return bytes.size();
}

void AppendUtf8CodePoint(std::string& out, uint32_t code_point) {
  if (code_point < 0x80) {
    out.push_back(static_cast<char>(code_point));
  } else if (code_point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (code_point >> 6)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else if (code_point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (code_point >> 12)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (code_point >> 18)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  }
}

std::u16string Utf8ToWide(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    const size_t length = WellFormedUtf8Length(at, end);
    if (length == 0) {
      ThrowBadConversion();
    }
    uint32_t value = DecodeWellFormed(at, length);
    if (value >= 0x10000) {
      value -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(value));
    }
    at += length;
  }
  return out;
}

std::string WideToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t value = text[i];
    if (value >= 0xD800 && value <= 0xDBFF) {
      if (i + 1 >= text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF) {
        ThrowBadConversion();
      }
      value = 0x10000 + ((value - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
      ++i;
    } else if (value >= 0xDC00 && value <= 0xDFFF) {
      ThrowBadConversion();
    }
    AppendUtf8CodePoint(out, value);
  }
  return out;
}

}  // namespace brimo_stack
