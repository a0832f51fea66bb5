// The frame parser. Requests are objects of strings, small integers, booleans and lists, and a
// content string can fill the whole 16 MiB frame; the library reads a string a byte at a time,
// so the common shapes get a reader that moves over plain runs sixteen bytes a step. Whatever
// that reader doesn't take (fractions, exponents, long integers, deep nesting, a byte-order mark
// and every invalid text) goes to the library, so both agree on what is valid and on the value.
#include "brimo_stack/local_runtime/ipc/json_frame_parser.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "brimo_stack_common/byte_vector.h"
#include "brimo_stack_common/large_buffer.h"
#include "brimo_stack_common/utf8.h"

namespace brimo_stack::local_runtime::ipc {
namespace {

using nlohmann::json;

// Deeper values go to the library, whose parser keeps its own stack instead of recursing.
constexpr int kMaxFastDepth = 128;
// Eighteen digits can't overflow 64 bits; longer numbers go to the library's conversion.
constexpr size_t kMaxFastDigits = 18;
// A string with escapes that may be this long is measured first, so it is allocated once.
constexpr size_t kMeasuredStringBytes = size_t{64} << 10;

bool IsPlainStringByte(unsigned char byte) { return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\'; }

// First byte at or after `at` that ends a plain run: a quote, a backslash, a control character
// or the start of a multi-byte sequence.
const char* SkipPlainBytes(const char* at, const char* end) {
  const ByteVector quote = BroadcastByte('"');
  const ByteVector backslash = BroadcastByte('\\');
  while (end - at >= static_cast<std::ptrdiff_t>(kByteVectorBytes)) {
    const ByteVector bytes = LoadByteVector(at);
    // Read as signed, every byte from 0x80 up is below zero, next to the control characters.
    const ByteVector stops = reinterpret_cast<ByteVector>(reinterpret_cast<SignedByteVector>(bytes) < 0x20) |
                             reinterpret_cast<ByteVector>(bytes == quote) |
                             reinterpret_cast<ByteVector>(bytes == backslash);
    if (const uint32_t mask = LaneMask(stops); mask != 0) {
      return at + __builtin_ctz(mask);
    }
    at += kByteVectorBytes;
  }
  while (at != end && IsPlainStringByte(static_cast<unsigned char>(*at))) {
    ++at;
  }
  return at;
}

class FastJsonReader {
 public:
  explicit FastJsonReader(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

  // True with the value; false when the text is invalid or has a part left to the library.
  bool ReadDocument(json& value) {
    SkipWhitespace();
    if (!ReadValue(value, 0)) {
      return false;
    }
    SkipWhitespace();
    return at_ == end_;
  }

 private:
  bool AtByte(char expected) const { return at_ != end_ && *at_ == expected; }

  void SkipWhitespace() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\n' || *at_ == '\r')) {
      ++at_;
    }
  }

  bool ReadValue(json& value, int depth) {
    if (at_ == end_) {
      return false;
    }
    switch (*at_) {
      case '{':
        return ReadObject(value, depth);
      case '[':
        return ReadArray(value, depth);
      case '"': {
        std::string text;
        if (!ReadString(text)) {
          return false;
        }
        value = std::move(text);
        return true;
      }
      case 't':
        return ReadLiteral("true", true, value);
      case 'f':
        return ReadLiteral("false", false, value);
      case 'n':
        return ReadLiteral("null", nullptr, value);
      default:
        return ReadInteger(value);
    }
  }

  bool ReadLiteral(std::string_view word, json literal, json& value) {
    if (static_cast<size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) {
      return false;
    }
    at_ += word.size();
    value = std::move(literal);
    return true;
  }

  bool ReadObject(json& value, int depth) {
    if (depth >= kMaxFastDepth) {
      return false;
    }
    ++at_;
    value = json::object();
    SkipWhitespace();
    if (AtByte('}')) {
      ++at_;
      return true;
    }
    for (;;) {
      SkipWhitespace();
      std::string key;
      if (!AtByte('"') || !ReadString(key)) {
        return false;
      }
      SkipWhitespace();
      if (!AtByte(':')) {
        return false;
      }
      ++at_;
      SkipWhitespace();
      json member;
      if (!ReadValue(member, depth + 1)) {
        return false;
      }
      // A repeated key keeps its last value, as with the library.
      value[std::move(key)] = std::move(member);
      SkipWhitespace();
      if (AtByte(',')) {
        ++at_;
      } else if (AtByte('}')) {
        ++at_;
        return true;
      } else {
        return false;
      }
    }
  }

  bool ReadArray(json& value, int depth) {
    if (depth >= kMaxFastDepth) {
      return false;
    }
    ++at_;
    value = json::array();
    SkipWhitespace();
    if (AtByte(']')) {
      ++at_;
      return true;
    }
    for (;;) {
      SkipWhitespace();
      json element;
      if (!ReadValue(element, depth + 1)) {
        return false;
      }
      value.push_back(std::move(element));
      SkipWhitespace();
      if (AtByte(',')) {
        ++at_;
      } else if (AtByte(']')) {
        ++at_;
        return true;
      } else {
        return false;
      }
    }
  }

  // Integers as the library stores them: unsigned without a sign, signed with one.
  bool ReadInteger(json& value) {
    const bool negative = AtByte('-');
    if (negative) {
      ++at_;
    }
    const char* digits = at_;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') {
      ++at_;
    }
    const auto count = static_cast<size_t>(at_ - digits);
    if (count == 0 || count > kMaxFastDigits || (digits[0] == '0' && count > 1)) {
      return false;
    }
    if (AtByte('.') || AtByte('e') || AtByte('E')) {
      return false;
    }
    uint64_t number = 0;
    for (const char* digit = digits; digit != at_; ++digit) {
      number = number * 10 + static_cast<uint64_t>(*digit - '0');
    }
    if (negative) {
      value = -static_cast<int64_t>(number);
    } else {
      value = number;
    }
    return true;
  }

  // The closing quote of the string whose body starts at `at_`: the first quote behind an even
  // number of backslashes. nullptr when there is none.
  const char* FindClosingQuote() const {
    for (const char* at = at_; at != end_; ++at) {
      at = static_cast<const char*>(std::memchr(at, '"', static_cast<size_t>(end_ - at)));
      if (at == nullptr) {
        return nullptr;
      }
      size_t backslashes = 0;
      while (at - backslashes > at_ && at[-1 - static_cast<std::ptrdiff_t>(backslashes)] == '\\') {
        ++backslashes;
      }
      if (backslashes % 2 == 0) {
        return at;
      }
    }
    return nullptr;
  }

  bool ReadString(std::string& text) {
    ++at_;
    const char* run = at_;
    bool measured = false;
    for (;;) {
      at_ = SkipPlainBytes(at_, end_);
      if (at_ == end_) {
        return false;
      }
      const auto byte = static_cast<unsigned char>(*at_);
      if (byte == '"') {
        if (text.empty() && at_ - run >= static_cast<std::ptrdiff_t>(kLargeBufferBytes)) {
          ReserveLargeString(text, static_cast<size_t>(at_ - run));
        }
        text.append(run, at_);
        ++at_;
        return true;
      }
      if (byte == '\\') {
        if (!measured && end_ - run >= static_cast<std::ptrdiff_t>(kMeasuredStringBytes)) {
          // The escaped form is never shorter than the text, so its length bounds the capacity.
          measured = true;
          if (const char* quote = FindClosingQuote()) {
            ReserveLargeString(text, text.size() + static_cast<size_t>(quote - run));
          }
        }
        text.append(run, at_);
        if (!ReadEscape(text)) {
          return false;
        }
        run = at_;
        continue;
      }
      if (byte < 0x20) {
        return false;
      }
      const size_t length = WellFormedUtf8Length(at_, end_);
      if (length == 0) {
        return false;
      }
      at_ += length;
    }
  }

  bool ReadHex4(uint32_t& unit) {
    if (end_ - at_ < 4) {
      return false;
    }
    unit = 0;
    for (int i = 0; i < 4; ++i, ++at_) {
      const char c = *at_;
      uint32_t digit;
      if (c >= '0' && c <= '9') {
        digit = static_cast<uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        digit = static_cast<uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        digit = static_cast<uint32_t>(c - 'A' + 10);
      } else {
        return false;
      }
      unit = unit * 16 + digit;
    }
    return true;
  }

  // The escape at `at_` (a backslash); a surrogate must come as a high and low pair.
  bool ReadEscape(std::string& text) {
    ++at_;
    if (at_ == end_) {
      return false;
    }
    const char kind = *at_++;
    switch (kind) {
      case '"': text.push_back('"'); return true;
      case '\\': text.push_back('\\'); return true;
      case '/': text.push_back('/'); return true;
      case 'b': text.push_back('\b'); return true;
      case 'f': text.push_back('\f'); return true;
      case 'n': text.push_back('\n'); return true;
      case 'r': text.push_back('\r'); return true;
      case 't': text.push_back('\t'); return true;
      case 'u': break;
      default: return false;
    }
    uint32_t unit = 0;
    if (!ReadHex4(unit) || (unit >= 0xDC00 && unit <= 0xDFFF)) {
      return false;
    }
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      uint32_t low = 0;
      if (end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') {
        return false;
      }
      at_ += 2;
      if (!ReadHex4(low) || low < 0xDC00 || low > 0xDFFF) {
        return false;
      }
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    AppendUtf8CodePoint(text, unit);
    return true;
  }

  const char* at_;
  const char* end_;
};

}  // namespace

bool ReadJsonFrameFast(std::string_view text, json& value) {
  value = nullptr;
  if (FastJsonReader(text).ReadDocument(value)) {
    return true;
  }
  value = nullptr;
  return false;
}

bool ParseJsonFrame(std::string_view text, json& value) {
  if (ReadJsonFrameFast(text, value)) {
    return true;
  }
  // The library takes a NUL byte for the end of its input and would leave what follows unread;
  // a valid text holds none, not even inside a string.
  if (std::memchr(text.data(), '\0', text.size()) != nullptr) {
    return false;
  }
  value = json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false, /*ignore_comments=*/false);
  if (value.is_discarded()) {
    value = nullptr;
    return false;
  }
  return true;
}

}  // namespace brimo_stack::local_runtime::ipc
