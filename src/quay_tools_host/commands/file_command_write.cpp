// file_write: a text or a local file's bytes at a path, whole through a temporary or appended.
#include <filesystem>

#include "quay_tools_host/commands/existing_file_entry.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/read_line_numbers.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/file_append.h"
#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host {
namespace {

using internal::FileMutationErrorKind;

CommandResult MapParentMissing(CommandResult result) {
  return internal::MapMutationFailure(std::move(result), FileMutationErrorKind::kParentDirNotFound);
}

CommandResult WriteLocalFile(const FileWriteRequest& request, const std::filesystem::path& real,
                             uint64_t& bytes_written) {
  std::filesystem::path local_real;
  CommandResult readable = internal::ResolveExistingFileUnderPolicy(request.base_cwd, *request.local_path,
                                                                    request.policy, /*for_write=*/false,
                                                                    FileMutationErrorKind::kFileNotFound, local_real);
  if (!readable.ok) {
    return readable;
  }
  CommandResult written =
      request.append ? internal::AppendFileToFile(local_real, real, bytes_written)
                     : internal::CopyFileAtomically(local_real, real, internal::FileErrorKind::kWriteFileFailed,
                                                    bytes_written);
  if (!written.ok) {
    return MapParentMissing(std::move(written));
  }
  return MapParentMissing(internal::CheckWritePathComponents(real, {}));
}

CommandResult WriteContent(const FileWriteRequest& request, const std::filesystem::path& real,
                           uint64_t& bytes_written) {
  std::string stripped;
  const std::string_view text =
      internal::TryStripReadLineNumbers(*request.content, stripped) ? stripped : std::string_view(*request.content);
  if (request.append) {
    CommandResult appended = internal::AppendBytesToFile(real, text, bytes_written);
    if (!appended.ok) {
      return MapParentMissing(std::move(appended));
    }
    return MapParentMissing(internal::CheckWritePathComponents(real, {}));
  }
  CommandResult written = internal::WriteFileAtomically(real, text);
  if (!written.ok) {
    return MapParentMissing(std::move(written));
  }
  bytes_written = text.size();
  return CommandResult::Success();
}

}  // namespace

CommandResult FileCommandService::Write(const FileWriteRequest& request) {
  if (request.path.empty()) {
    return internal::MakeFileError(internal::FileErrorKind::kInvalidFilePath, kCategoryRefused, 1, "path is empty");
  }
  if (request.content.has_value() == request.local_path.has_value()) {
    return CommandResult::Failure(kCategoryRefused, 1,
                                  "INVALID_ARGUMENT: exactly one of content or local_path must be provided");
  }
  std::filesystem::path logical;
  CommandResult resolved = internal::ResolveRequestPath(request.base_cwd, request.path, logical);
  if (!resolved.ok) {
    return resolved;
  }
  std::filesystem::path real;
  CommandResult located = internal::ResolveRealPathAllowMissing(logical, real);
  if (!located.ok) {
    return MapParentMissing(std::move(located));
  }
  CommandResult allowed = internal::CheckRequestPathAccess(request.policy, logical, real, /*for_write=*/true);
  if (!allowed.ok) {
    return MapParentMissing(std::move(allowed));
  }
  // Parents made here stay, even when a later step fails.
  CommandResult parents = internal::EnsureWritePathParents(real, {});
  if (!parents.ok) {
    return MapParentMissing(std::move(parents));
  }
  uint64_t bytes_written = 0;
  CommandResult written = request.content.has_value() ? WriteContent(request, real, bytes_written)
                                                      : WriteLocalFile(request, real, bytes_written);
  if (!written.ok) {
    return written;
  }
  return MakeJsonOutputResult(nlohmann::json{{"bytes_written", bytes_written}});
}

}  // namespace brimo_stack::quay_tools_host
