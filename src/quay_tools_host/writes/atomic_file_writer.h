// Whole-file writes through a sibling temporary file and one rename.
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
[[nodiscard]] CommandResult WriteFileAtomically(const std::filesystem::path& target, std::string_view bytes);

// Creates `temp` exclusively, writes and flushes it, gives it the target's permissions and
// renames it over the target (or into its place when there is none). `root`, when given, is
// where the no-link rule of the directory open begins. Every failure removes `temp`.
[[nodiscard]] CommandResult WriteTempAndReplace(const std::filesystem::path& temp, const std::filesystem::path& target,
                                                std::string_view bytes, const std::filesystem::path& root = {});

// As WriteTempAndReplace with the bytes of a regular local file; `bytes_written` counts them.
[[nodiscard]] CommandResult CopyFileAtomically(const std::filesystem::path& local, const std::filesystem::path& target,
                                               FileErrorKind kind, uint64_t& bytes_written,
                                               const std::filesystem::path& root = {});

enum class MoveFileMode {
  kCreate,   // fails when the target exists: "atomically create file"
  kReplace,  // replaces the target atomically: "atomically replace file"
};

// Up to 6 renames 50 ms apart while the target is busy, then a flush of the directory.
[[nodiscard]] CommandResult MoveFileWithRetry(const std::filesystem::path& temp, const std::filesystem::path& target,
                                              MoveFileMode mode, FileErrorKind kind);

}  // namespace brimo_stack::quay_tools_host::internal
