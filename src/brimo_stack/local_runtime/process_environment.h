// The host's own process environment.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime {

// An empty value removes the variable. A failure is the system error for `context`.
[[nodiscard]] CommandResult SetProcessEnvironmentVariable(std::string_view name, std::string_view value,
                                                          std::string_view context);

// Absent when the variable isn't set.
[[nodiscard]] std::optional<std::string> GetProcessEnvironmentVariable(std::string_view name);

}  // namespace brimo_stack::local_runtime
