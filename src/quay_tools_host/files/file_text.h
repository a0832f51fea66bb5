// Strict UTF-8, JSON escaping costs and the line-number prefix of file_read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brimo_stack::quay_tools_host::internal {

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF, nothing cut off.
[[nodiscard]] bool IsValidUtf8(std::string_view bytes);

// 1 to 4 by the lead byte (0xC2-0xDF, 0xE0-0xEF, 0xF0-0xF4 for the longer forms), 0 otherwise.
[[nodiscard]] int Utf8SequenceLength(unsigned char lead_byte);

// Length of `bytes` without a multi-byte sequence that its end cuts short, so that the rest can
// be checked once more bytes have come.
[[nodiscard]] size_t CompleteUtf8Prefix(std::string_view bytes);

// Bytes one input byte takes inside a JSON string: 2 for the short escapes, 6 for other
// control characters, 1 otherwise.
[[nodiscard]] constexpr uint64_t JsonEscapedByteCost(unsigned char byte) {
  switch (byte) {
    case '\b': case '\t': case '\n': case '\f': case '\r': case '"': case '\\': return 2;
    default: return byte < 0x20 ? 6 : 1;
  }
}
[[nodiscard]] uint64_t JsonEscapedCost(std::string_view text);

// "%6llu\t": right-aligned in six columns, wider numbers take the room they need.
[[nodiscard]] std::string FormatReadLineNumber(uint64_t line_number);

struct ReadLinePrefix {
  uint64_t number = 0;
  size_t prefix_length = 0;  // up to and including the tab
};

// Recognises the prefix of FormatReadLineNumber in front of a line (terminator excluded).
[[nodiscard]] std::optional<ReadLinePrefix> ParseReadLinePrefix(std::string_view line);

// Removes the prefixes from text that came back from a read; the whole input unchanged unless
// every line carries one and the numbers run on by one.
[[nodiscard]] std::string StripReadLineNumbers(std::string_view text);

// The same decision without a copy of an unchanged text: true with the stripped text in
// `stripped` when every line carries a prefix, false when the text stays as it is.
[[nodiscard]] bool TryStripReadLineNumbers(std::string_view text, std::string& stripped);

}  // namespace brimo_stack::quay_tools_host::internal
