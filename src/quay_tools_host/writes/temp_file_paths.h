// The sub-path rules and the free-name search of file_create_temp.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr int kTempNameAttempts = 10000;

// The refusal message for a sub_path that could leave its root or is not plainly written.
[[nodiscard]] std::optional<std::string> ValidateTempSubPath(std::string_view sub_path);

// `target` when free, else "stem (n).ext" beside it for the first free n of 1 to 9,999.
[[nodiscard]] CommandResult AllocateUniqueTempPath(const std::filesystem::path& target,
                                                   std::filesystem::path& final_path);

}  // namespace brimo_stack::quay_tools_host::internal
