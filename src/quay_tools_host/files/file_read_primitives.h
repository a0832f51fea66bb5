// Read-side file primitives: snapshots, identities, cached read handles, whole-file loads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

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

// The platform's open file of a read, defined by the platform layer: a descriptor owner on
// POSIX, a handle owner on Win32.
struct OpenReadFile;
struct OpenReadFileCloser {
  void operator()(OpenReadFile* file) const noexcept;
};

// One open read handle and the size measured before it was opened; readers never go past
// `size`, so a file that grows during a read is not seen growing.
struct CachedReadFile {
  [[nodiscard]] bool is_open() const { return handle != nullptr; }
  void Close() { handle.reset(); }

  std::filesystem::path path;
  std::unique_ptr<OpenReadFile, OpenReadFileCloser> handle;
  uint64_t size = 0;
};

// Opens `path`, the real path a policy decided on, for reading with full sharing into `file`
// (closing what it held): no link on the way, and the open file proved to be at `path`.
[[nodiscard]] CommandResult OpenCachedReadHandle(const std::filesystem::path& path, CachedReadFile& file);
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

// Success when the open handle is the file of `snapshot`: a file put in its place between the
// snapshot and the open is caught here, as a changed file.
[[nodiscard]] CommandResult CheckOpenedFileIsTheSnapshot(const CachedReadFile& file, const FileSnapshot& snapshot);

// Loads a whole file of at most `limit` bytes that must be valid UTF-8, through one descriptor
// opened as OpenCachedReadHandle opens one.
[[nodiscard]] CommandResult ReadValidatedUtf8File(const std::filesystem::path& path, std::string& text,
                                                  uint64_t limit);

}  // namespace brimo_stack::quay_tools_host::internal
