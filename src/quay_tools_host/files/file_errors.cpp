// The error model of the file commands.
#include "quay_tools_host/files/file_errors.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

namespace brimo_stack::quay_tools_host::internal {

std::string_view FileErrorCode(FileErrorKind kind) {
  switch (kind) {
    case FileErrorKind::kReadFileFailed: return "READ_FILE_FAILED";
    case FileErrorKind::kWriteFileFailed: return "WRITE_FILE_FAILED";
    case FileErrorKind::kExportFileFailed: return "EXPORT_FILE_FAILED";
    case FileErrorKind::kFileTooLarge: return "FILE_TOO_LARGE";
    case FileErrorKind::kInvalidFilePath: return "INVALID_FILE_PATH";
    case FileErrorKind::kInvalidExportPath: return "INVALID_EXPORT_PATH";
    case FileErrorKind::kGlobFailed: return "GLOB_FAILED";
    case FileErrorKind::kRgNotFound: return "RG_NOT_FOUND";
  }
  SPDLOG_ERROR("resolve file error code failed, unknown error kind={}, category={}, code={}",
               static_cast<int32_t>(kind), kCategoryInternal, 0);
  return "UNKNOWN_FILE_ERROR";
}

std::string_view FileMutationErrorName(FileMutationErrorKind kind) {
  switch (kind) {
    case FileMutationErrorKind::kParentDirNotFound: return "PARENT_DIR_NOT_FOUND";
    case FileMutationErrorKind::kFileNotFound: return "FILE_NOT_FOUND";
    case FileMutationErrorKind::kPermissionDenied: return "PERMISSION_DENIED";
    case FileMutationErrorKind::kOldStringNotFound: return "OLD_STRING_NOT_FOUND";
    case FileMutationErrorKind::kOldStringNotUnique: return "OLD_STRING_NOT_UNIQUE";
    case FileMutationErrorKind::kCellIdNotFound: return "CELL_ID_NOT_FOUND";
    default: return "UNKNOWN_FILE_MUTATION_ERROR";
  }
}

int32_t FileMutationErrorCode(FileMutationErrorKind kind) {
  const auto value = static_cast<int32_t>(kind);
  return value >= 1 && value <= 6 ? 999 + value : 0;
}

bool IsAccessDeniedFailure(int32_t category, int32_t code) {
  return category == kCategorySystem && IsDeniedSystemNumber(code);
}

bool IsNotFoundFailure(int32_t category, int32_t code) {
  return category == kCategorySystem && IsMissingSystemNumber(code);
}

bool IsAccessDeniedErrorCode(const std::error_code& error) {
  return error == std::errc::permission_denied || error == std::errc::operation_not_permitted;
}

bool IsNotFoundErrorCode(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

CommandResult MakeFileError(FileErrorKind kind, int32_t category, int32_t code, std::string_view text) {
  if (IsAccessDeniedFailure(category, code)) {
    return CommandResult::Failure(category, code, std::string(kFileAccessDeniedPrefix) + std::string(text),
                                  FailureReason::kAccessDenied);
  }
  std::string message(FileErrorCode(kind));
  message += ": ";
  message += text;
  return CommandResult::Failure(category, code, std::move(message));
}

CommandResult MakeFileError(FileErrorKind kind, const CommandResult& system_failure) {
  const CommandError& error = *system_failure.error;
  return MakeFileError(kind, error.category, error.code, error.message);
}

CommandResult FileChangedFailure() {
  return CommandResult::Failure(kCategoryRefused, 1, "file changed while it was being read");
}

CommandResult MakeFileMutationError(FileMutationErrorKind kind, std::string_view text) {
  return CommandResult::Failure(kCategoryRefused, FileMutationErrorCode(kind),
                                fmt::format("{}: {}", FileMutationErrorName(kind), text));
}

CommandResult MakeFileErrorFromErrorCode(FileErrorKind kind, std::string_view stage, const std::error_code& error) {
  std::string text = fmt::format("{} failed: {}", stage, error.message());
  if (IsAccessDeniedErrorCode(error)) {
    return CommandResult::Failure(kCategorySystem, error.value(), std::string(kFileAccessDeniedPrefix) + text,
                                  FailureReason::kAccessDenied);
  }
  return MakeFileError(kind, kCategorySystem, error.value(), text);
}

CommandResult MakeFileErrorForPath(FileErrorKind kind, std::string_view stage, const std::filesystem::path& path,
                                   const std::error_code& error) {
  return MakeFileErrorFromErrorCode(kind, fmt::format("{} '{}'", stage, path.string()), error);
}

CommandResult MapMutationFailure(CommandResult result, FileMutationErrorKind not_found_kind) {
  if (result.ok || !result.error.has_value() || result.error->message.empty()) {
    return result;
  }
  const CommandError& error = *result.error;
  if (IsAccessDeniedFailure(error.category, error.code) || error.reason == FailureReason::kAccessDenied) {
    return MakeFileMutationError(FileMutationErrorKind::kPermissionDenied, error.message);
  }
  if (not_found_kind != FileMutationErrorKind::kNone && IsNotFoundFailure(error.category, error.code)) {
    return MakeFileMutationError(not_found_kind, error.message);
  }
  return result;
}

}  // namespace brimo_stack::quay_tools_host::internal
