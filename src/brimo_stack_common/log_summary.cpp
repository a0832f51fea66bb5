// Log-safe summaries of values.
#include "brimo_stack_common/log_summary.h"

#include <nlohmann/json.hpp>

namespace brimo_stack {

std::string HashForLog(std::string_view text) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001B3ull;
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15; i >= 0; --i) {
    out[static_cast<size_t>(i)] = kDigits[hash & 0xF];
    hash >>= 4;
  }
  return out;
}

std::string SummarizePathForLog(const std::filesystem::path& path) {
  // Paths are narrow byte strings here: no conversion, the bytes are summarised as they are.
  return SummarizeTextForLog(path.native());
}

std::string SummarizeTextForLog(std::string_view text) {
  std::string out = "{len=";
  out += std::to_string(text.size());
  out += ", hash=";
  out += HashForLog(text);
  out += ", ext=";
  out += QuoteForLog(ExtensionOfPathText(text));
  out += "}";
  return out;
}

std::string TextOrSummaryForLog(std::string_view text, size_t limit) {
  return text.size() <= limit ? std::string(text) : SummarizeTextForLog(text);
}

std::string ExtensionOfPathText(std::string_view text) {
  const size_t separator = text.find_last_of("/\\");
  const std::string_view name = separator == std::string_view::npos ? text : text.substr(separator + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
    return {};
  }
  return std::string(name.substr(dot));
}

std::string QuoteForLog(std::string_view text) {
  return nlohmann::json(std::string(text)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace brimo_stack
