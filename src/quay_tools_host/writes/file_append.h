// Appends in place: the file grows where it is, and a failure can leave part of the bytes behind.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

// Appends `bytes` to the regular file `target`, creating it when it is missing.
[[nodiscard]] CommandResult AppendBytesToFile(const std::filesystem::path& target, std::string_view bytes,
                                              uint64_t& bytes_written);

// Appends the bytes of the regular file `local`; the same file under two names is refused.
[[nodiscard]] CommandResult AppendFileToFile(const std::filesystem::path& local, const std::filesystem::path& target,
                                             uint64_t& bytes_written);

}  // namespace brimo_stack::quay_tools_host::internal
