// The rg argument list of a file_grep request.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"

namespace brimo_stack::quay_tools_host::internal {

// Every argument in its fixed order. No request text ever stands where rg could read it as an
// option: values ride inside "--name=value" or behind "--", and no configuration file is read,
// since one could add options that start other programs.
[[nodiscard]] CommandResult BuildGrepArguments(const FileGrepRequest& request, const std::filesystem::path& real,
                                               const std::filesystem::path& target,
                                               std::vector<std::string>& arguments);

// The -M value: the pattern's length plus 50, within 200 and 4096.
[[nodiscard]] uint64_t GrepMaxColumns(size_t pattern_bytes);

}  // namespace brimo_stack::quay_tools_host::internal
