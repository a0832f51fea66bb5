// Strict base64 of file contents that arrive in a request.
#pragma once

#include <string>
#include <string_view>

namespace brimo_stack {

// Strict RFC 4648 base64 (standard alphabet, padding required, the bits behind the last byte
// zero). An invalid text gives no bytes and sets *valid to false.
[[nodiscard]] std::string DecodeBase64Content(std::string_view text, bool* valid);

}  // namespace brimo_stack
