// The error model of the file commands: head words, mutation codes and the predicates.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

enum class FileErrorKind : int32_t {
  kReadFileFailed = 0,
  kWriteFileFailed = 1,
  kExportFileFailed = 2,
  kFileTooLarge = 3,
  kInvalidFilePath = 4,
  kInvalidExportPath = 5,
  kGlobFailed = 6,
  kRgNotFound = 7,
};

enum class FileMutationErrorKind : int32_t {
  kNone = 0,
  kParentDirNotFound = 1,
  kFileNotFound = 2,
  kPermissionDenied = 3,
  kOldStringNotFound = 4,
  kOldStringNotUnique = 5,
  kCellIdNotFound = 6,
};

// The head word of a kind, "UNKNOWN_FILE_ERROR" (and an error line) for anything else.
[[nodiscard]] std::string_view FileErrorCode(FileErrorKind kind);
[[nodiscard]] std::string_view FileMutationErrorName(FileMutationErrorKind kind);
[[nodiscard]] int32_t FileMutationErrorCode(FileMutationErrorKind kind);

// "<HEAD>: text", or "FILE_ACCESS_DENIED: text" (with the reason kAccessDenied) when category
// and code say denied.
[[nodiscard]] CommandResult MakeFileError(FileErrorKind kind, int32_t category, int32_t code, std::string_view text);
// A failed system call, as MakeSystemCommandError built it, under the kind's head word.
[[nodiscard]] CommandResult MakeFileError(FileErrorKind kind, const CommandResult& system_failure);
// "file changed while it was being read" (category 7, code 1): what was decided on is no
// longer what is open or at its path.
[[nodiscard]] CommandResult FileChangedFailure();
// "<MUTATION_NAME>: text", category 7, code 1000 to 1005.
[[nodiscard]] CommandResult MakeFileMutationError(FileMutationErrorKind kind, std::string_view text);
// "stage failed: <message of the code>", category 6.
[[nodiscard]] CommandResult MakeFileErrorFromErrorCode(FileErrorKind kind, std::string_view stage,
                                                       const std::error_code& error);
// As above with " '<path>'" behind the stage.
[[nodiscard]] CommandResult MakeFileErrorForPath(FileErrorKind kind, std::string_view stage,
                                                 const std::filesystem::path& path, const std::error_code& error);
// Turns a denied failure (by its numbers or its reason) into PERMISSION_DENIED and, for a kind
// other than kNone, a missing one into that kind; everything else stands.
[[nodiscard]] CommandResult MapMutationFailure(CommandResult result, FileMutationErrorKind not_found_kind);

[[nodiscard]] bool IsAccessDeniedFailure(int32_t category, int32_t code);
[[nodiscard]] bool IsNotFoundFailure(int32_t category, int32_t code);
[[nodiscard]] bool IsAccessDeniedErrorCode(const std::error_code& error);
[[nodiscard]] bool IsNotFoundErrorCode(const std::error_code& error);

inline constexpr std::string_view kFileAccessDeniedPrefix = "FILE_ACCESS_DENIED: ";

// The platform layer under the predicates: which system error numbers mean denied and which
// mean missing. The numbers differ between platforms (errno 5 is an I/O error on POSIX).
[[nodiscard]] bool IsDeniedSystemNumber(int32_t code);
[[nodiscard]] bool IsMissingSystemNumber(int32_t code);

}  // namespace brimo_stack::quay_tools_host::internal
