// The descriptors a write works through on POSIX: the target's directory, reached without
// following any link and held open, so that a link swapped into the path after the walk is
// refused instead of followed; a local source proved to be a regular file; and the loop that
// writes a whole buffer.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

class WriteDirectory {
 public:
  // Opens `directory` with no link allowed on the way: from `root`'s parent when `root` is
  // given (what lies above `root` is not the write's business), else from the top. A link or
  // a file on the way is refused naming `reported`; any other failure is the stage
  // "inspect parent directory <directory>" under `kind`.
  [[nodiscard]] CommandResult Open(const std::filesystem::path& directory, const std::filesystem::path& root,
                                   const std::filesystem::path& reported, FileErrorKind kind);
  // The directory of `target` (the current one for a bare name), refusals naming `target`.
  [[nodiscard]] CommandResult OpenParentOf(const std::filesystem::path& target, const std::filesystem::path& root,
                                           FileErrorKind kind);

  [[nodiscard]] int fd() const { return fd_.get(); }
  // "/proc/self/fd/N/name": an entry of this directory for calls that only take a path.
  [[nodiscard]] std::string EntryPath(std::string_view name) const;
  // fsync of the directory, so that a rename or a creation in it is durable.
  [[nodiscard]] CommandResult Sync(FileErrorKind kind, std::string_view stage) const;

 private:
  ScopedFd fd_;
};

// Writes all of `bytes`; a call that writes nothing fails with EIO. Adds what went out to
// `bytes_written` when given.
[[nodiscard]] CommandResult WriteAllToFd(int fd, std::string_view bytes, FileErrorKind kind, std::string_view stage,
                                         uint64_t* bytes_written);

// A local source at the real path the policy decided on, opened with no link on the way (and
// without blocking on a FIFO), proved on the open descriptor to be that path and a regular file.
[[nodiscard]] CommandResult OpenLocalSource(const std::filesystem::path& local, FileErrorKind kind, ScopedFd& source,
                                            struct stat& info);

// Reads at most `size` bytes of `source` (its size when it was opened) in blocks of 64 KiB and
// hands each block to `sink`, which answers with the result of writing it; a failed read is the
// stage "read local_path". A file that grows meanwhile, or one whose reported size of 0 hides
// content (a /proc file), is copied as its size promised, the way file_read reads it.
[[nodiscard]] CommandResult CopyLocalSource(int source, uint64_t size, FileErrorKind kind,
                                            const std::function<CommandResult(std::string_view)>& sink);

// The last component of a path, as the name of a directory entry.
[[nodiscard]] std::string EntryNameOf(const std::filesystem::path& path);

}  // namespace brimo_stack::quay_tools_host::internal
