// ASCII-only text rules: they cannot fail on bytes that are not UTF-8, such as POSIX file names.
#pragma once

#include <string>
#include <string_view>

namespace brimo_stack {

// Folds only A-Z; every other byte stays as it is.
[[nodiscard]] std::string ToLowerAscii(std::string_view text);

}  // namespace brimo_stack
