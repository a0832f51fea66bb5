// Strict UTF-8: one decoder of well-formed sequences, and what the layers build on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace brimo_stack {

// Length of the well-formed UTF-8 sequence that starts at `at` (no overlong form, no surrogate,
// nothing above U+10FFFF, nothing cut off by `end`), or 0 when there is none. `at` < `end`.
[[nodiscard]] size_t WellFormedUtf8Length(const char* at, const char* end);

// The whole text is well-formed UTF-8; an empty text is.
[[nodiscard]] bool IsValidUtf8(std::string_view bytes);

// 1 to 4 by the lead byte alone (0xC2-0xDF, 0xE0-0xEF, 0xF0-0xF4 for the longer forms), 0 for a
// byte that can't lead a sequence.
[[nodiscard]] int Utf8SequenceLength(unsigned char lead_byte);

// Length of `bytes` without a multi-byte sequence that its end cuts short, so that the rest can
// be checked once more bytes have come.
[[nodiscard]] size_t CompleteUtf8Prefix(std::string_view bytes);

// Appends the UTF-8 form of a code point that is not a surrogate and not above U+10FFFF.
void AppendUtf8CodePoint(std::string& out, uint32_t code_point);

// Strict conversions; ill-formed input throws std::range_error("bad conversion").
[[nodiscard]] std::u16string Utf8ToWide(std::string_view text);
[[nodiscard]] std::string WideToUtf8(std::u16string_view text);

}  // namespace brimo_stack
