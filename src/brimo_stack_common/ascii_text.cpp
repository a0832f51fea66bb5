// ASCII-only text rules.
#include "brimo_stack_common/ascii_text.h"

namespace brimo_stack {

std::string ToLowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return out;
}

}  // namespace brimo_stack
