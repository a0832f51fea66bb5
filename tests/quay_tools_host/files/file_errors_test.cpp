// The error model: head words, the denied rewrite, mutation codes and their mapping.
#include <gtest/gtest.h>

#include <cerrno>

#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

std::error_code Errno(int number) { return std::error_code(number, std::generic_category()); }

TEST(MakeFileErrorTest, HeadWordOrDenied) {
  const CommandResult missing = MakeFileError(FileErrorKind::kReadFileFailed, 6, ENOENT, "open file failed: x");
  EXPECT_EQ(missing.error->message, "READ_FILE_FAILED: open file failed: x");
  EXPECT_EQ(missing.error->code, ENOENT);
  for (const int denied : {EPERM, EACCES}) {
    const CommandResult result = MakeFileError(FileErrorKind::kWriteFileFailed, 6, denied, "t");
    EXPECT_EQ(result.error->message, "FILE_ACCESS_DENIED: t") << denied;
    EXPECT_EQ(result.error->code, denied);
  }
  // An I/O error is no denial here, whatever its number means elsewhere.
  EXPECT_EQ(MakeFileError(FileErrorKind::kWriteFileFailed, 6, EIO, "t").error->message, "WRITE_FILE_FAILED: t");
  // Only category 6 numbers are system errors.
  EXPECT_EQ(MakeFileError(FileErrorKind::kInvalidFilePath, 7, 1, "t").error->message, "INVALID_FILE_PATH: t");
  EXPECT_EQ(MakeFileError(static_cast<FileErrorKind>(42), 3, 0, "t").error->message, "UNKNOWN_FILE_ERROR: t");
}

// 1001 to 1004 are answered end to end by file_write and file_edit; 1005 needs nbformat there.
TEST(MakeFileMutationErrorTest, NamesAndCodes) {
  const std::tuple<FileMutationErrorKind, const char*, int> cases[] = {
      {FileMutationErrorKind::kParentDirNotFound, "PARENT_DIR_NOT_FOUND", 1000},
      {FileMutationErrorKind::kCellIdNotFound, "CELL_ID_NOT_FOUND", 1005},
      {FileMutationErrorKind::kNone, "UNKNOWN_FILE_MUTATION_ERROR", 0},
      {static_cast<FileMutationErrorKind>(7), "UNKNOWN_FILE_MUTATION_ERROR", 0}};
  for (const auto& [kind, name, code] : cases) {
    const CommandResult result = MakeFileMutationError(kind, "FILE_ACCESS_DENIED: x");
    EXPECT_EQ(result.error->category, 7);
    EXPECT_EQ(result.error->code, code);
    EXPECT_EQ(result.error->message, std::string(name) + ": FILE_ACCESS_DENIED: x");
  }
}

// A head word kept as it is shows in file_read's refusal of a long path (e2e/file_read_test).
TEST(MakeFileErrorFromErrorCodeTest, StageAndSystemText) {
  const CommandResult denied = MakeFileErrorFromErrorCode(FileErrorKind::kReadFileFailed, "get file size", Errno(EACCES));
  EXPECT_EQ(denied.error->message, "FILE_ACCESS_DENIED: get file size failed: Permission denied");
  EXPECT_EQ(denied.error->category, 6);
  EXPECT_EQ(denied.error->code, EACCES);
  const CommandResult with_path =
      MakeFileErrorForPath(FileErrorKind::kWriteFileFailed, "create directory", "/a/b", Errno(EROFS));
  EXPECT_EQ(with_path.error->message, "WRITE_FILE_FAILED: create directory '/a/b' failed: Read-only file system");
}

TEST(MapMutationFailureTest, DeniedAlwaysMissingOnlyWithAKind) {
  const CommandResult missing = CommandResult::Failure(6, ENOENT, "READ_FILE_FAILED: open file failed: x");
  EXPECT_EQ(MapMutationFailure(missing, FileMutationErrorKind::kNone).error->message, missing.error->message);
  const CommandResult mapped = MapMutationFailure(missing, FileMutationErrorKind::kFileNotFound);
  EXPECT_EQ(mapped.error->code, 1001);
  EXPECT_EQ(mapped.error->message, "FILE_NOT_FOUND: READ_FILE_FAILED: open file failed: x");
  const CommandResult not_dir = CommandResult::Failure(6, ENOTDIR, "m");
  EXPECT_EQ(MapMutationFailure(not_dir, FileMutationErrorKind::kParentDirNotFound).error->code, 1000);

  const CommandResult policy = CommandResult::Failure(7, 1, "FILE_ACCESS_DENIED: matched blacklist pattern: /p",
                                                      FailureReason::kAccessDenied);
  const CommandResult permission = MapMutationFailure(policy, FileMutationErrorKind::kNone);
  EXPECT_EQ(permission.error->code, 1002);
  EXPECT_EQ(permission.error->message, "PERMISSION_DENIED: FILE_ACCESS_DENIED: matched blacklist pattern: /p");
  EXPECT_EQ(MapMutationFailure(CommandResult::Failure(6, 1, "x"), FileMutationErrorKind::kNone).error->code, 1002);

  // The decision rests on the reason, never on the text: a message that only reads like a
  // denial stays what it is.
  for (const char* text : {"INVALID: FILE_ACCESS_DENIED: x", "FILE_ACCESS_DENIED: looks denied"}) {
    EXPECT_EQ(MapMutationFailure(CommandResult::Failure(7, 1, text), FileMutationErrorKind::kFileNotFound).error->code, 1)
        << text;
  }
  EXPECT_TRUE(MapMutationFailure(CommandResult::Success(), FileMutationErrorKind::kFileNotFound).ok);
  EXPECT_EQ(MapMutationFailure(CommandResult::Failure(6, 13, ""), FileMutationErrorKind::kNone).error->code, 13);
}

// The members of the sets that no message or code above depends on.
TEST(PredicatesTest, PosixErrorSets) {
  EXPECT_TRUE(IsAccessDeniedErrorCode(Errno(EPERM)));
  EXPECT_TRUE(IsNotFoundErrorCode(Errno(ENOENT)));
  EXPECT_TRUE(IsNotFoundErrorCode(Errno(ENOTDIR)));
  EXPECT_FALSE(IsNotFoundErrorCode(Errno(EISDIR)));
  EXPECT_FALSE(IsNotFoundFailure(6, ESRCH));
  EXPECT_FALSE(IsNotFoundFailure(7, ENOENT));
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
