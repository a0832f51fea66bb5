// Log-safe summaries, strict UTF-8/UTF-16 conversion and strict base64.
#include "brimo_stack_common/string_util.h"

#include <array>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace brimo_stack {
namespace {

constexpr uint32_t kBase64Bad = 0x01000000;

// One table per position in a group, each value already shifted into place, so that a group
// decodes with four lookups, one OR and one test of the error mark.
struct Base64Tables {
  std::array<uint32_t, 256> position[4];
};

constexpr Base64Tables MakeBase64Tables() {
  Base64Tables tables{};
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (auto& table : tables.position) {
    for (auto& entry : table) {
      entry = kBase64Bad;
    }
  }
  for (uint32_t i = 0; i < kAlphabet.size(); ++i) {
    const auto c = static_cast<unsigned char>(kAlphabet[i]);
    tables.position[0][c] = i << 18;
    tables.position[1][c] = i << 12;
    tables.position[2][c] = i << 6;
    tables.position[3][c] = i;
  }
  return tables;
}

constexpr Base64Tables kBase64 = MakeBase64Tables();

[[noreturn]] void ThrowBadConversion() { throw std::range_error("bad conversion"); }

}  // namespace

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

std::u16string Utf8ToWide(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    uint32_t value = 0;
    size_t length = 0;
    uint32_t minimum = 0;
    if (lead < 0x80) {
      value = lead;
      length = 1;
    } else if ((lead & 0xE0) == 0xC0) {
      value = lead & 0x1F;
      length = 2;
      minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      value = lead & 0x0F;
      length = 3;
      minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      value = lead & 0x07;
      length = 4;
      minimum = 0x10000;
    } else {
      ThrowBadConversion();
    }
    if (i + length > text.size()) {
      ThrowBadConversion();
    }
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) {
        ThrowBadConversion();
      }
      value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
      ThrowBadConversion();
    }
    if (value >= 0x10000) {
      value -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(value));
    }
    i += length;
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

std::string ToLowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return out;
}

std::string DecodeBase64Content(std::string_view text, bool* valid) {
  if (valid != nullptr) {
    *valid = true;
  }
  if (text.empty()) {
    return {};
  }
  const auto fail = [valid]() {
    if (valid != nullptr) {
      *valid = false;
    }
    return std::string();
  };
  if (text.size() % 4 != 0) {
    return fail();
  }
  size_t length = text.size();
  if (text[length - 1] == '=') {
    --length;
    if (text[length - 1] == '=') {
      --length;
    }
  }
  std::string out;
  out.reserve(length / 4 * 3 + 2);
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    const uint32_t group = kBase64.position[0][bytes[i]] | kBase64.position[1][bytes[i + 1]] |
                           kBase64.position[2][bytes[i + 2]] | kBase64.position[3][bytes[i + 3]];
    if ((group & kBase64Bad) != 0) {
      return fail();
    }
    out.push_back(static_cast<char>(group >> 16));
    out.push_back(static_cast<char>((group >> 8) & 0xFF));
    out.push_back(static_cast<char>(group & 0xFF));
  }
  const size_t rest = length - i;
  if (rest == 1) {
    return fail();
  }
  if (rest >= 2) {
    uint32_t group = kBase64.position[0][bytes[i]] | kBase64.position[1][bytes[i + 1]];
    if (rest == 3) {
      group |= kBase64.position[2][bytes[i + 2]];
    }
    if ((group & kBase64Bad) != 0) {
      return fail();
    }
    out.push_back(static_cast<char>(group >> 16));
    if (rest == 3) {
      out.push_back(static_cast<char>((group >> 8) & 0xFF));
    }
  }
  return out;
}

}  // namespace brimo_stack
