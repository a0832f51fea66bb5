// The line-number prefix of file_read and its removal.
#include "quay_tools_host/files/read_line_numbers.h"

#include <fmt/format.h>

namespace brimo_stack::quay_tools_host::internal {

std::string FormatReadLineNumber(uint64_t line_number) { return fmt::format("{:>6}\t", line_number); }

std::optional<ReadLinePrefix> ParseReadLinePrefix(std::string_view line) {
  // Only spaces and then digits may stand before the tab, so the scan ends at the first other
  // byte and never walks the rest of a long line.
  size_t digits = 0;
  while (digits < line.size() && line[digits] == ' ') ++digits;
  const size_t spaces = digits;
  size_t tab = spaces;
  while (tab < line.size() && line[tab] >= '0' && line[tab] <= '9') ++tab;
  if (tab == line.size() || line[tab] != '\t' || tab < 6 || tab == spaces) return std::nullopt;
  if (line[spaces] == '0') return std::nullopt;
  // A number of seven digits or more fills its field, so no blank may lead it.
  if (tab > 6 && spaces != 0) return std::nullopt;
  uint64_t number = 0;
  for (size_t k = spaces; k < tab; ++k) {
    number = number * 10 + static_cast<uint64_t>(line[k] - '0');  // wraps modulo 2^64 by design
  }
  return ReadLinePrefix{number, tab + 1};
}

bool TryStripReadLineNumbers(std::string_view text, std::string& stripped) {
  stripped.clear();
  std::optional<uint64_t> previous;
  size_t start = 0;
  while (start < text.size()) {
    // A prefix holds no line terminator, so it can be read before the line's end is known.
    const auto prefix = ParseReadLinePrefix(text.substr(start));
    if (!prefix.has_value() || (previous.has_value() && prefix->number != *previous + 1)) {
      stripped.clear();
      return false;
    }
    if (!previous.has_value()) stripped.reserve(text.size());
    previous = prefix->number;
    size_t end = start + prefix->prefix_length;
    while (end < text.size() && text[end] != '\n' && text[end] != '\r') ++end;
    size_t next = end;
    if (next < text.size()) {
      ++next;
      if (text[end] == '\r' && next < text.size() && text[next] == '\n') ++next;
    }
    stripped.append(text.substr(start + prefix->prefix_length, next - start - prefix->prefix_length));
    start = next;
  }
  return previous.has_value();
}

std::string StripReadLineNumbers(std::string_view text) {
  std::string stripped;
  return TryStripReadLineNumbers(text, stripped) ? stripped : std::string(text);
}

}  // namespace brimo_stack::quay_tools_host::internal
