// Log-safe summaries of values: a log may tell two paths or ids apart without showing either.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace brimo_stack {

// FNV-1a 64 of the bytes, as 16 lower-case hex digits.
[[nodiscard]] std::string HashForLog(std::string_view text);

// "{len=N, hash=H, ext=\".x\"}": tells two paths apart without showing either.
[[nodiscard]] std::string SummarizePathForLog(const std::filesystem::path& path);
[[nodiscard]] std::string SummarizeTextForLog(std::string_view text);

// The text itself when it holds at most `limit` bytes, else SummarizeTextForLog: a log line may
// name what a request sent (a method, a call id) but never carry megabytes of it.
[[nodiscard]] std::string TextOrSummaryForLog(std::string_view text, size_t limit);

// The extension of the last component, empty for ".bashrc", "name." and names without a dot.
[[nodiscard]] std::string ExtensionOfPathText(std::string_view text);

// The text as a JSON string literal; ill-formed UTF-8 becomes U+FFFD.
[[nodiscard]] std::string QuoteForLog(std::string_view text);

}  // namespace brimo_stack
