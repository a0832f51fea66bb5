// The operating system's own text for an error number.
#pragma once

#include <string>

namespace brimo_stack {

// Empty when the system has no text for the number.
[[nodiscard]] std::string SystemErrorMessage(int number);

}  // namespace brimo_stack
