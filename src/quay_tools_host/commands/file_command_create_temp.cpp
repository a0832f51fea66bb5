// file_create_temp: base64 bytes under a caller's root, at a free name near the one suggested.
#include <filesystem>
#include <system_error>

#include "brimo_stack_common/base64.h"
#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/temp_file_paths.h"
#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host {
namespace {

constexpr size_t kInlineContentLimit = 8388608;

CommandResult Refuse(std::string message) { return CommandResult::Failure(kCategoryRefused, 1, std::move(message)); }

}  // namespace

CommandResult FileCommandService::CreateTempFile(const FileCreateTempRequest& request) {
  if (request.root.empty()) {
    return Refuse("temp file root is empty");
  }
  // The system would cut a path at a NUL and write somewhere else than was checked.
  if (AnyPathHasNul({request.root, request.sub_path})) {
    return Refuse(std::string(kNulInPathMessage));
  }
  if (std::optional<std::string> refusal = internal::ValidateTempSubPath(request.sub_path)) {
    return Refuse(std::move(*refusal));
  }
  bool valid = false;
  const std::string bytes = DecodeBase64Content(request.content_base64, &valid);
  if (!valid) {
    return Refuse("content_base64 is invalid");
  }
  if (bytes.size() > kInlineContentLimit) {
    return Refuse("decoded content exceeds the 8 MiB inline limit");
  }
  const std::filesystem::path root = PrepareWidePath(request.root);
  if (!IsFullyQualifiedPath(root)) {
    return Refuse("temp file root must be absolute");
  }
  const std::filesystem::path target = root / request.sub_path;
  std::filesystem::path final_path;
  CommandResult allocated = internal::AllocateUniqueTempPath(target, final_path);
  if (!allocated.ok) {
    return allocated;
  }
  CommandResult parents = internal::EnsureWritePathParents(final_path, root);
  if (!parents.ok) {
    return parents;
  }
  CommandResult written = internal::WriteTempAndReplace(internal::MakeTempSiblingPath(final_path), final_path, bytes, root);
  if (!written.ok) {
    return written;
  }
  std::error_code error;
  const std::filesystem::path canonical_final = std::filesystem::weakly_canonical(final_path, error);
  if (error) {
    return internal::MakeFileErrorForPath(internal::FileErrorKind::kWriteFileFailed, "resolve temp file path",
                                          final_path, error);
  }
  const std::filesystem::path canonical_root = std::filesystem::weakly_canonical(root, error);
  if (error) {
    return internal::MakeFileErrorForPath(internal::FileErrorKind::kWriteFileFailed, "resolve temp file path",
                                          final_path, error);
  }
  // '\' is an ordinary byte of a POSIX name, so there is nothing to turn into '/'.
  const std::string sub_path = canonical_final.lexically_relative(canonical_root).generic_string();
  return MakeJsonOutputResult(nlohmann::json{{"path", PathToUtf8(final_path)},
                                             {"file_name", PathToUtf8(final_path.filename())},
                                             {"sub_path", sub_path},
                                             {"sub_path_changed", sub_path != request.sub_path}});
}

}  // namespace brimo_stack::quay_tools_host
