// file_export: a readable file copied into the trusted export root, answered with size and URL.
#include <cstdint>
#include <system_error>

#include "quay_tools_host/commands/existing_file_entry.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/export_target.h"

namespace brimo_stack::quay_tools_host {
namespace {

using internal::FileErrorKind;

CommandResult ExportCheckFailed(std::string_view text, const std::filesystem::path& target) {
  return internal::MakeFileError(FileErrorKind::kInvalidExportPath, kCategoryInternal, 0,
                                 std::string(text) + PathToUtf8(target));
}

// What stands at the target must be a plain file that the rename can replace.
CommandResult CheckExistingExportFile(const std::filesystem::path& target) {
  std::error_code error;
  const std::filesystem::file_status entry = std::filesystem::symlink_status(target, error);
  if (entry.type() == std::filesystem::file_type::none) {
    return internal::MakeFileErrorFromErrorCode(FileErrorKind::kInvalidExportPath, "inspect existing export path",
                                                error);
  }
  if (entry.type() == std::filesystem::file_type::not_found) {
    return CommandResult::Success();
  }
  if (internal::IsReparsePoint(target)) {
    return ExportCheckFailed("export path is a reparse point: ", target);
  }
  if (!std::filesystem::is_regular_file(entry)) {
    return ExportCheckFailed("export path is not a regular file: ", target);
  }
  return CommandResult::Success();
}

}  // namespace

CommandResult FileCommandService::Export(const FileExportRequest& request) {
  std::filesystem::path real;
  CommandResult allowed = internal::ResolveExistingFileUnderPolicy(
      request.base_cwd, request.path, request.policy, /*for_write=*/false, internal::FileMutationErrorKind::kNone, real);
  if (!allowed.ok) {
    return allowed;
  }

  std::filesystem::path target;
  std::filesystem::path export_directory;
  CommandResult destination =
      internal::ResolveExportTarget(request.export_path, install_dir(), target, export_directory);
  if (!destination.ok) {
    return destination;
  }
  if (!internal::IsPathInsideRoot(target, export_directory)) {
    return ExportCheckFailed("export path escaped export directory: ", target);
  }
  CommandResult existing = CheckExistingExportFile(target);
  if (!existing.ok) {
    return existing;
  }

  std::filesystem::path export_root;
  CommandResult rooted = internal::ResolveExportRoot(install_dir(), export_root);
  if (!rooted.ok) {
    return rooted;
  }
  uint64_t bytes_written = 0;
  // The no-link rule of the copy starts at the export root, as the checks above did: what lies
  // above it, a temporary directory reached through a link included, is not the agent's.
  CommandResult copied =
      internal::CopyFileAtomically(real, target, FileErrorKind::kExportFileFailed, bytes_written, export_root);
  if (!copied.ok) {
    return copied;
  }
  // The copy stays: it is in place, but a link swapped in after the rename must not be reported
  // as the exported file.
  if (internal::IsReparsePoint(target)) {
    return ExportCheckFailed("exported file is a reparse point: ", target);
  }
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(target, error);
  if (error) {
    return internal::MakeFileErrorFromErrorCode(FileErrorKind::kExportFileFailed, "stat exported file", error);
  }

  return MakeJsonOutputResult({
      {"local_path", PathToUtf8(target)},
      {"size", static_cast<uint64_t>(size)},
      {"url", internal::MakeFileUrl(target)},
  });
}

}  // namespace brimo_stack::quay_tools_host
