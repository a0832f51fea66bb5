// The line-number prefix that file_read puts in front of a line, and its removal from what an
// agent sends back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brimo_stack::quay_tools_host::internal {

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
