// The load and the rewrite that file_edit and file_notebook_edit share.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"

namespace brimo_stack::quay_tools_host::internal {

// An existing regular file that the policy lets the agent write, loaded whole as UTF-8 of at
// most `limit` bytes. A missing file is FILE_NOT_FOUND and a denial PERMISSION_DENIED.
[[nodiscard]] CommandResult LoadEditableFile(std::string_view base_cwd, std::string_view path,
                                             const FileAccessPolicyConfig& policy, uint64_t limit,
                                             std::filesystem::path& real, std::string& text);

// The edited text written back through a temporary file, with the same mapping of failures.
[[nodiscard]] CommandResult RewriteEditableFile(const std::filesystem::path& real, std::string_view text);

}  // namespace brimo_stack::quay_tools_host::internal
