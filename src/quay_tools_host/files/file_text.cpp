// Strict UTF-8, JSON escaping costs and the line-number prefix of file_read.
#include "quay_tools_host/files/file_text.h"

#include <cstring>

#include <fmt/format.h>

#include <vector>

namespace brimo_stack::quay_tools_host::internal {

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

bool IsValidUtf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t n = bytes.size();
  size_t i = 0;
  while (i < n) {
    // Runs of ASCII pass sixteen bytes a step; whole files of source text are mostly that.
    while (n - i >= 16) {
      uint64_t words[2];
      std::memcpy(words, p + i, sizeof(words));
      if (((words[0] | words[1]) & 0x8080808080808080ull) != 0) break;
      i += 16;
    }
    if (i >= n) break;
    const unsigned char lead = p[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    int length = 0;
    uint32_t value = 0;
    uint32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (n - i < static_cast<size_t>(length)) return false;
    for (int k = 1; k < length; ++k) {
      const unsigned char next = p[i + k];
      if ((next & 0xC0) != 0x80) return false;
      value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
    i += static_cast<size_t>(length);
  }
  return true;
}

uint64_t JsonEscapedCost(std::string_view text) {
  uint64_t cost = 0;
  for (const char c : text) cost += JsonEscapedByteCost(static_cast<unsigned char>(c));
  return cost;
}

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
