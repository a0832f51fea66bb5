// Read-side file primitives on POSIX: stat for snapshots, plain descriptors for reads.
#include "quay_tools_host/files/file_read_primitives.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "brimo_stack_common/large_buffer.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/file_text.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr uint64_t kTicksPerSecond = 10'000'000;
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr uint64_t kMaxReadCount = 0xFFFFFFFFull;
constexpr uint64_t kMaxSeekOffset = uint64_t{1} << 63;
// Far above any clock tick; a change time in the future (a clock set back) must not hang us.
constexpr uint64_t kMaxChangeTimeWaitNs = 50'000'000;

int StatPath(const std::filesystem::path& path, struct stat& info) {
  return ::stat(path.c_str(), &info) == 0 ? 0 : errno;
}

uint64_t ChangeTimeOf(const struct stat& info) {
  return static_cast<uint64_t>(info.st_ctim.tv_sec) * kNanosecondsPerSecond +
         static_cast<uint64_t>(info.st_ctim.tv_nsec);
}

uint64_t CoarseNowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

int OpenForRead(const std::filesystem::path& path) {
  // O_NONBLOCK: a FIFO put in place of the file after its checks must not block the host.
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

CommandResult EditableTooLarge(uint64_t limit, const std::filesystem::path& path) {
  return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0,
                       fmt::format("editable file exceeds {} bytes: {}", limit, PathToUtf8(path)));
}

}  // namespace

void CachedReadFile::Close() {
  if (handle != kInvalidFileHandle) {
    ::close(static_cast<int>(handle));
    handle = kInvalidFileHandle;
  }
}

bool OpenCachedReadHandle(const std::filesystem::path& path, CachedReadFile& file, CommandResult& failure) {
  // Nothing on POSIX is a transient open failure: one attempt.
  file.Close();
  file.path = path;
  const int fd = OpenForRead(path);
  if (fd < 0) {
    const int error = errno;
    failure = MakeFileError(FileErrorKind::kReadFileFailed, kCategorySystem, error, FormatSystemError("open file", error));
    return false;
  }
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  file.handle = fd;
  return true;
}

CommandResult ReadCached(const CachedReadFile& file, char* buffer, uint64_t count, uint64_t& bytes_read) {
  bytes_read = 0;
  if (file.handle == kInvalidFileHandle || count > kMaxReadCount) {
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0, "invalid cached read handle or read size");
  }
  ssize_t n;
  do {
    n = ::read(static_cast<int>(file.handle), buffer, static_cast<size_t>(count));
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    const int error = errno;
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategorySystem, error, FormatSystemError("read file", error));
  }
  bytes_read = static_cast<uint64_t>(n);
  return CommandResult::Success();
}

CommandResult SeekCached(const CachedReadFile& file, uint64_t offset) {
  if (file.handle == kInvalidFileHandle || offset >= kMaxSeekOffset) {
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0, "invalid cached read handle or seek offset");
  }
  if (::lseek(static_cast<int>(file.handle), static_cast<off_t>(offset), SEEK_SET) < 0) {
    const int error = errno;
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategorySystem, error, FormatSystemError("seek file", error));
  }
  return CommandResult::Success();
}

CommandResult ReadFileIdentity(const std::filesystem::path& path, FileIdentity& identity) {
  struct stat info {};
  if (const int error = StatPath(path, info); error != 0) {
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategorySystem, error,
                         FormatSystemError("inspect file identity", error));
  }
  identity.volume_serial = static_cast<uint64_t>(info.st_dev);
  identity.file_index = static_cast<uint64_t>(info.st_ino);
  identity.change_time = ChangeTimeOf(info);
  return CommandResult::Success();
}

CommandResult TakeFileSnapshot(const std::filesystem::path& path, FileSnapshot& snapshot) {
  // One stat gives size and modification time together, so the "get file modification
  // time" stage of the two-call platforms has no failure of its own here.
  struct stat info {};
  if (const int error = StatPath(path, info); error != 0) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kReadFileFailed, "get file size",
                                      std::error_code(error, std::generic_category()));
  }
  FileIdentity identity;
  CommandResult identified = ReadFileIdentity(path, identity);
  if (!identified.ok) return identified;
  snapshot.size = static_cast<uint64_t>(info.st_size);
  snapshot.modified = static_cast<uint64_t>(info.st_mtim.tv_sec) * kTicksPerSecond;
  snapshot.volume_serial = identity.volume_serial;
  snapshot.file_index = identity.file_index;
  snapshot.change_time = identity.change_time;
  return CommandResult::Success();
}

bool IsOpenedFileTheSnapshot(const CachedReadFile& file, const FileSnapshot& snapshot) {
  struct stat info {};
  if (file.handle == kInvalidFileHandle || ::fstat(static_cast<int>(file.handle), &info) != 0) return false;
  const FileSnapshot opened{static_cast<uint64_t>(info.st_size),
                            static_cast<uint64_t>(info.st_mtim.tv_sec) * kTicksPerSecond,
                            static_cast<uint64_t>(info.st_dev), static_cast<uint64_t>(info.st_ino),
                            ChangeTimeOf(info)};
  std::filesystem::path where;
  return opened == snapshot && RealPathOfHandle(file.handle, where) && where.native() == file.path.native();
}

void WaitUntilChangeTimeIsPast(const FileSnapshot& snapshot) {
  timespec resolution{};
  ::clock_getres(CLOCK_REALTIME_COARSE, &resolution);
  const uint64_t tick = static_cast<uint64_t>(resolution.tv_sec) * kNanosecondsPerSecond +
                        static_cast<uint64_t>(resolution.tv_nsec);
  uint64_t waited = 0;
  for (uint64_t now = CoarseNowNs(); now <= snapshot.change_time && waited < kMaxChangeTimeWaitNs;
       now = CoarseNowNs()) {
    const uint64_t step = std::min<uint64_t>(std::max<uint64_t>(tick, 100'000), snapshot.change_time - now + 1);
    timespec pause{static_cast<time_t>(step / kNanosecondsPerSecond), static_cast<long>(step % kNanosecondsPerSecond)};
    ::nanosleep(&pause, nullptr);
    waited += step;
  }
}

CommandResult ReadValidatedUtf8File(const std::filesystem::path& path, std::string& text, uint64_t limit) {
  struct stat info {};
  if (const int error = StatPath(path, info); error != 0) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kReadFileFailed, "get file size",
                                      std::error_code(error, std::generic_category()));
  }
  const auto size = static_cast<uint64_t>(info.st_size);
  if (limit < size) return EditableTooLarge(limit, path);
  const int fd = OpenForRead(path);
  if (fd < 0) {
    const int error = errno;
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategorySystem, error,
                         FormatSystemError("open file", error) + ": " + PathToUtf8(path));
  }
  CachedReadFile file;
  file.handle = fd;
  text.clear();
  ReserveLargeString(text, static_cast<size_t>(size));
  std::string block(kFileBlockSize, '\0');
  // Each block is checked while it is still in the cache; a sequence cut by a block's end waits
  // for the next. The verdict comes after the whole read, so a file that also grows too large
  // gets the same error as with one check at the end.
  size_t checked = 0;
  bool valid = true;
  while (true) {
    uint64_t got = 0;
    // A raw read reports its errno, so the stream's "without a system error" case can't arise.
    CommandResult read = ReadCached(file, block.data(), block.size(), got);
    if (!read.ok) return read;
    if (got == 0) break;
    if (text.size() + got > limit) return EditableTooLarge(limit, path);
    text.append(block.data(), static_cast<size_t>(got));
    if (valid) {
      const size_t complete = CompleteUtf8Prefix(text);
      valid = IsValidUtf8(std::string_view(text).substr(checked, complete - checked));
      checked = complete;
    }
  }
  if (!valid || !IsValidUtf8(std::string_view(text).substr(checked))) {
    return CommandResult::Failure(kCategoryRefused, 0, "UNSUPPORTED_ENCODING: file is not valid UTF-8: " + PathToUtf8(path));
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
