// Resolution of request paths: the logical path by text, the real path through the system.
#include "quay_tools_host/files/file_paths.h"

#include <fmt/format.h>

#include <system_error>
#include <vector>

namespace brimo_stack::quay_tools_host::internal {
namespace {

using std::filesystem::file_type;

CommandResult RefuseNulByte() {
  return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1, kNulInPathMessage);
}

CommandResult NotFound(const std::filesystem::path& logical) {
  return CommandResult::Failure(kCategoryRefused, 1, "FILE_NOT_FOUND: " + PathToUtf8(logical));
}

}  // namespace

CommandResult ResolveRequestPath(std::string_view base_cwd, std::string_view path, std::filesystem::path& logical) {
  if (AnyPathHasNul({base_cwd, path})) {
    return RefuseNulByte();
  }
  // Throws only when the current directory can't be read; the endpoint owns that case.
  std::filesystem::path base = base_cwd.empty()
                                   ? NormalizeFilePath(std::filesystem::current_path(), /*force_long=*/false)
                                   : PrepareWidePath(base_cwd);
  if (!IsFullyQualifiedPath(base)) {
    // A relative base_cwd would leave the policy deciding on relative text.
    base = NormalizeFilePath(std::filesystem::current_path() / base, /*force_long=*/false);
  }
  std::filesystem::path prepared = PrepareWidePath(path);
  std::filesystem::path joined = IsFullyQualifiedPath(prepared) ? std::move(prepared) : base / prepared;
  logical = NormalizeFilePath(joined.lexically_normal(), /*force_long=*/false);
  return CommandResult::Success();
}

CommandResult ResolveRealPathAllowMissing(const std::filesystem::path& logical, std::filesystem::path& real) {
  std::error_code error;
  const auto status = std::filesystem::status(logical, error);
  if (status.type() == file_type::none) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect path", error);
  }
  if (status.type() != file_type::not_found) {
    real = logical;
    return ResolveRealPath(real);
  }
  std::vector<std::filesystem::path> removed;
  std::filesystem::path current = logical;
  while (true) {
    if (current.empty() || current == current.parent_path()) {
      real = logical;
      return CommandResult::Success();
    }
    removed.push_back(current.filename());
    current = current.parent_path();
    error.clear();
    const auto parent_status = std::filesystem::status(current, error);
    if (parent_status.type() == file_type::none) {
      return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect parent path", error);
    }
    if (parent_status.type() != file_type::not_found) break;
  }
  CommandResult resolved = ResolveRealPath(current);
  if (!resolved.ok) return resolved;
  for (auto it = removed.rbegin(); it != removed.rend(); ++it) current /= *it;
  real = NormalizeFilePath(current, /*force_long=*/false);
  return CommandResult::Success();
}

CommandResult RequireRegularFile(std::string_view base_cwd, std::string_view path, std::filesystem::path& real,
                                 FileMutationErrorKind not_found_kind) {
  if (path.empty()) {
    return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1, "path is empty");
  }
  std::filesystem::path logical;
  CommandResult resolved = ResolveRequestPath(base_cwd, path, logical);
  if (!resolved.ok) return resolved;
  std::error_code error;
  const auto status = std::filesystem::status(logical, error);
  if (status.type() == file_type::none) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect file path", error);
  }
  if (status.type() == file_type::not_found) {
    if (not_found_kind != FileMutationErrorKind::kNone) {
      return MakeFileMutationError(not_found_kind, "file not found: " + PathToUtf8(logical));
    }
    return NotFound(logical);
  }
  error.clear();
  const auto type_status = std::filesystem::status(logical, error);
  if (type_status.type() == file_type::none) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect file type", error);
  }
  if (type_status.type() != file_type::regular) {
    return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                         "path is not a regular file: " + PathToUtf8(logical));
  }
  real = logical;
  return ResolveRealPath(real);
}

CommandResult RequireSearchRoot(std::string_view base_cwd, std::string_view path, std::filesystem::path& real) {
  std::filesystem::path logical;
  CommandResult resolved = ResolveRequestPath(base_cwd, path.empty() ? std::string_view(".") : path, logical);
  if (!resolved.ok) return resolved;
  std::error_code error;
  const auto status = std::filesystem::status(logical, error);
  if (status.type() == file_type::none) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect search root", error);
  }
  if (status.type() == file_type::not_found) return NotFound(logical);
  real = logical;
  return ResolveRealPath(real);
}

}  // namespace brimo_stack::quay_tools_host::internal
