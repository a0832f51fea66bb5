// The directory a write lands in, reached without following any link and held open, so that a
// link swapped into the path after the walk is refused instead of followed (POSIX only).
#pragma once

#include <filesystem>
#include <string>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

class WriteDirectory {
 public:
  WriteDirectory() = default;
  ~WriteDirectory();
  WriteDirectory(WriteDirectory&& other) noexcept;
  WriteDirectory& operator=(WriteDirectory&& other) noexcept;
  WriteDirectory(const WriteDirectory&) = delete;
  WriteDirectory& operator=(const WriteDirectory&) = delete;

  // Opens `directory` with no link allowed on the way: from `root`'s parent when `root` is
  // given (what lies above `root` is not the write's business), else from the top. 0 or errno.
  [[nodiscard]] int Open(const std::filesystem::path& directory, const std::filesystem::path& root);

  [[nodiscard]] int fd() const { return fd_; }
  // "/proc/self/fd/N/name": an entry of this directory for calls that only take a path.
  [[nodiscard]] std::string EntryPath(const std::string& name) const;
  // fsync of the directory, so that a rename or a creation in it is durable. 0 or errno.
  [[nodiscard]] int Sync() const;

 private:
  int fd_ = -1;
};

// The failure of WriteDirectory::Open: a link on the way and a file in the way have the walk's
// own messages; anything else is the stage "inspect parent directory <directory>".
[[nodiscard]] CommandResult WriteDirectoryOpenError(int error, const std::filesystem::path& directory,
                                                    const std::filesystem::path& reported, FileErrorKind kind);

}  // namespace brimo_stack::quay_tools_host::internal
