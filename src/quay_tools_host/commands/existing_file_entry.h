// The entry check of every command that works on a file that must already exist.
#pragma once

#include <filesystem>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

// Resolves `path` as requested and as its real location, requires a regular file, and decides
// both paths by the request's policy. A mutating command (`not_found_kind` set) gets a policy
// refusal as PERMISSION_DENIED; a reading one gets it as it is.
[[nodiscard]] CommandResult ResolveExistingFileUnderPolicy(std::string_view base_cwd, std::string_view path,
                                                           const FileAccessPolicyConfig& policy, bool for_write,
                                                           FileMutationErrorKind not_found_kind,
                                                           std::filesystem::path& real);

}  // namespace brimo_stack::quay_tools_host::internal
