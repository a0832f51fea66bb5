// The operating system's own text for an error number.
#pragma once

#include <string>

namespace brimo_stack {

// Empty when the system has no text for the number.
[[nodiscard]] std::string SystemErrorMessage(int number);

// The calling thread's last system error number (errno or GetLastError).
[[nodiscard]] int LastSystemError();

}  // namespace brimo_stack
