// The load and the rewrite that file_edit and file_notebook_edit share.
#include "quay_tools_host/commands/editable_file.h"

#include "quay_tools_host/commands/existing_file_entry.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_read_primitives.h"
#include "quay_tools_host/writes/atomic_file_writer.h"

namespace brimo_stack::quay_tools_host::internal {

CommandResult LoadEditableFile(std::string_view base_cwd, std::string_view path, const FileAccessPolicyConfig& policy,
                               uint64_t limit, std::filesystem::path& real, std::string& text) {
  CommandResult allowed = ResolveExistingFileUnderPolicy(base_cwd, path, policy, /*for_write=*/true,
                                                         FileMutationErrorKind::kFileNotFound, real);
  if (!allowed.ok) {
    return allowed;
  }
  return MapMutationFailure(ReadValidatedUtf8File(real, text, limit), FileMutationErrorKind::kFileNotFound);
}

CommandResult RewriteEditableFile(const std::filesystem::path& real, std::string_view text) {
  return MapMutationFailure(WriteFileAtomically(real, text), FileMutationErrorKind::kFileNotFound);
}

}  // namespace brimo_stack::quay_tools_host::internal
