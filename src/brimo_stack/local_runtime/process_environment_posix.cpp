// The host's own process environment on POSIX.
#include "brimo_stack/local_runtime/process_environment.h"

#include <cerrno>
#include <cstdlib>

namespace brimo_stack::local_runtime {

CommandResult SetProcessEnvironmentVariable(std::string_view name, std::string_view value, std::string_view context) {
  const std::string name_text(name);
  const int status = value.empty() ? ::unsetenv(name_text.c_str())
                                   : ::setenv(name_text.c_str(), std::string(value).c_str(), /*overwrite=*/1);
  if (status != 0) {
    return MakeSystemCommandError(context, errno);
  }
  return CommandResult::Success();
}

std::optional<std::string> GetProcessEnvironmentVariable(std::string_view name) {
  const char* value = ::getenv(std::string(name).c_str());
  if (value == nullptr) {
    return std::nullopt;
  }
  return std::string(value);
}

}  // namespace brimo_stack::local_runtime
