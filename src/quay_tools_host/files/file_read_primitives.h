// Read-side file primitives: snapshots, identities, cached read handles, whole-file loads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

// A descriptor on POSIX, a HANDLE on Win32; all bits set is the invalid value on both.
using NativeFileHandle = std::intptr_t;
inline constexpr NativeFileHandle kInvalidFileHandle = -1;

inline constexpr uint64_t kFileBlockSize = 65536;

// Stable for one file across renames on one volume; change_time moves on every change.
struct FileIdentity {
  uint64_t volume_serial = 0;
  uint64_t file_index = 0;
  uint64_t change_time = 0;
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

struct FileSnapshot {
  uint64_t size = 0;
  uint64_t modified = 0;  // whole seconds since the epoch, times 10,000,000
  uint64_t volume_serial = 0;
  uint64_t file_index = 0;
  uint64_t change_time = 0;
  friend bool operator==(const FileSnapshot&, const FileSnapshot&) = default;
};

// One open read handle and the size measured before it was opened; readers never go past
// `size`, so a file that grows during a read is not seen growing.
struct CachedReadFile {
  CachedReadFile() = default;
  ~CachedReadFile() { Close(); }
  CachedReadFile(const CachedReadFile&) = delete;
  CachedReadFile& operator=(const CachedReadFile&) = delete;

  void Close();

  std::filesystem::path path;
  NativeFileHandle handle = kInvalidFileHandle;
  uint64_t size = 0;
};

// Opens `path` for reading with full sharing into `file` (closing what it held).
[[nodiscard]] bool OpenCachedReadHandle(const std::filesystem::path& path, CachedReadFile& file,
                                        CommandResult& failure);
// One read of at most `count` bytes at the current position.
[[nodiscard]] CommandResult ReadCached(const CachedReadFile& file, char* buffer, uint64_t count,
                                       uint64_t& bytes_read);
[[nodiscard]] CommandResult SeekCached(const CachedReadFile& file, uint64_t offset);

[[nodiscard]] CommandResult ReadFileIdentity(const std::filesystem::path& path, FileIdentity& identity);
[[nodiscard]] CommandResult TakeFileSnapshot(const std::filesystem::path& path, FileSnapshot& snapshot);

// Returns once a change to the file could no longer carry the snapshot's change time. File
// systems that stamp times from a coarse clock give two writes within one tick the same
// time, and a read that starts in that tick could not tell them apart.
void WaitUntilChangeTimeIsPast(const FileSnapshot& snapshot);

// True when the open handle is the file of `snapshot` and still sits at `file.path`: a link
// or a rename slipped in between the checks and the open is caught here.
[[nodiscard]] bool IsOpenedFileTheSnapshot(const CachedReadFile& file, const FileSnapshot& snapshot);

// Loads a whole file of at most `limit` bytes that must be valid UTF-8.
[[nodiscard]] CommandResult ReadValidatedUtf8File(const std::filesystem::path& path, std::string& text,
                                                  uint64_t limit);

}  // namespace brimo_stack::quay_tools_host::internal
