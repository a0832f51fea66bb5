// The entry check of every command that works on a file that must already exist.
#include "quay_tools_host/commands/existing_file_entry.h"

#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {

CommandResult ResolveExistingFileUnderPolicy(std::string_view base_cwd, std::string_view path,
                                             const FileAccessPolicyConfig& policy, bool for_write,
                                             FileMutationErrorKind not_found_kind, std::filesystem::path& real) {
  std::filesystem::path logical;
  CommandResult resolved = ResolveRequestPath(base_cwd, path, logical);
  if (!resolved.ok) {
    return resolved;
  }
  CommandResult regular = RequireRegularFile(base_cwd, path, real, not_found_kind);
  if (!regular.ok) {
    return regular;
  }
  CommandResult allowed = CheckRequestPathAccess(policy, logical, real, for_write);
  if (!allowed.ok && not_found_kind != FileMutationErrorKind::kNone) {
    return MapMutationFailure(std::move(allowed), not_found_kind);
  }
  return allowed;
}

}  // namespace brimo_stack::quay_tools_host::internal
