// Moves a search result into a file below the runtime artifact root on request.
#pragma once

#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host {

// A failure or an empty `result_file` passes through unchanged.
[[nodiscard]] CommandResult WriteResultArtifact(CommandResult result, std::string_view result_file,
                                                std::string_view install_dir);

}  // namespace brimo_stack::quay_tools_host
