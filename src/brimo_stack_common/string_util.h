// Log-safe summaries of values and the few text conversions that the layers share.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace brimo_stack {

// FNV-1a 64 of the bytes, as 16 lower-case hex digits.
[[nodiscard]] std::string HashForLog(std::string_view text);

// "{len=N, hash=H, ext=\".x\"}": tells two paths apart without showing either.
[[nodiscard]] std::string SummarizePathForLog(const std::filesystem::path& path);
[[nodiscard]] std::string SummarizeTextForLog(std::string_view text);

// The extension of the last component, empty for ".bashrc", "name." and names without a dot.
[[nodiscard]] std::string ExtensionOfPathText(std::string_view text);

// The text as a JSON string literal; ill-formed UTF-8 becomes U+FFFD.
[[nodiscard]] std::string QuoteForLog(std::string_view text);

// Strict conversions; ill-formed input throws std::range_error("bad conversion").
[[nodiscard]] std::u16string Utf8ToWide(std::string_view text);
[[nodiscard]] std::string WideToUtf8(std::u16string_view text);
// Appends the UTF-8 form of a code point that is not a surrogate and not above U+10FFFF.
void AppendUtf8CodePoint(std::string& out, uint32_t code_point);

// Folds only A-Z; every other byte stays as it is.
[[nodiscard]] std::string ToLowerAscii(std::string_view text);

// Strict RFC 4648 base64 (standard alphabet, padding required). An invalid text gives no bytes
// and sets *valid to false.
[[nodiscard]] std::string DecodeBase64Content(std::string_view text, bool* valid);

}  // namespace brimo_stack
