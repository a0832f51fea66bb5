// POSIX system error texts from strerror_r.
#include "brimo_stack_common/system_error.h"

#include <cstring>

namespace brimo_stack {
namespace {

// GNU and XSI strerror_r differ in their return type; both overloads end up here.
[[maybe_unused]] const char* PickMessage(int result, const char* buffer) {
  return result == 0 ? buffer : "";
}
[[maybe_unused]] const char* PickMessage(const char* result, const char*) {
  return result == nullptr ? "" : result;
}

}  // namespace

std::string SystemErrorMessage(int number) {
  char buffer[256] = {};
  return std::string(PickMessage(strerror_r(number, buffer, sizeof(buffer)), buffer));
}

}  // namespace brimo_stack
