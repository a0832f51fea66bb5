// Whole-file writes through a sibling temporary file and one rename, and appends in place.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr std::string_view kTempSuffixMarker = ".brimo_stack_tmp_";
inline constexpr int kMoveFileAttempts = 6;
inline constexpr int kMoveFileRetryDelayMs = 50;
inline constexpr size_t kCopyBlockBytes = 65536;

// "<64-bit random>_<monotonic nanoseconds>", both decimal.
[[nodiscard]] std::string MakeUniqueToken();
// The target's full name, ".brimo_stack_tmp_" and a unique token, in the target's directory.
[[nodiscard]] std::filesystem::path MakeTempSiblingPath(const std::filesystem::path& target);

// Walk, temporary file, rename, walk again. A failure of the second walk is reported although
// the content is in place: the path changed under the write.
[[nodiscard]] bool WriteFileAtomically(const std::filesystem::path& target, std::string_view bytes,
                                       CommandResult& failure);

// Creates `temp` exclusively, writes and flushes it, then CommitTempFile. `root`, when given,
// is where the no-link rule of the directory open begins.
[[nodiscard]] bool WriteTempAndReplace(const std::filesystem::path& temp, const std::filesystem::path& target,
                                       std::string_view bytes, CommandResult& failure,
                                       const std::filesystem::path& root = {});

// As WriteTempAndReplace with the bytes of a regular local file.
[[nodiscard]] bool CopyFileAtomically(const std::filesystem::path& local, const std::filesystem::path& target,
                                      FileErrorKind kind, uint64_t& bytes_written, CommandResult& failure,
                                      const std::filesystem::path& root = {});

// Gives `temp` the target's permissions and moves it over the target (or into its place when
// there is none). Every failure removes `temp`.
[[nodiscard]] bool CommitTempFile(const std::filesystem::path& temp, const std::filesystem::path& target,
                                  FileErrorKind kind, CommandResult& failure);

// The target's permission bits and its access ACL, when it has one, onto `temp`.
[[nodiscard]] bool PreserveTargetPermissions(const std::filesystem::path& target, const std::filesystem::path& temp,
                                             FileErrorKind kind, CommandResult& failure);

enum class MoveFileMode {
  kCreate,   // fails when the target exists
  kReplace,  // replaces the target atomically
};

// Up to 6 renames 50 ms apart while the target is busy; `error` holds the last error number.
[[nodiscard]] bool MoveFileWithRetry(const std::filesystem::path& temp, const std::filesystem::path& target,
                                     MoveFileMode mode, int& error);

// Appends in place; a failure can leave part of the bytes behind.
[[nodiscard]] bool AppendBytesToFile(const std::filesystem::path& target, std::string_view bytes,
                                     uint64_t& bytes_written, CommandResult& failure);
[[nodiscard]] bool AppendFileToFile(const std::filesystem::path& local, const std::filesystem::path& target,
                                    uint64_t& bytes_written, CommandResult& failure);

}  // namespace brimo_stack::quay_tools_host::internal
