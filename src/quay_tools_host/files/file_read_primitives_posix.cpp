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
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "brimo_stack_common/utf8.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/link_free_open_posix.h"

namespace brimo_stack::quay_tools_host::internal {

struct OpenReadFile {
  ScopedFd fd;
};

void OpenReadFileCloser::operator()(OpenReadFile* file) const noexcept { delete file; }

namespace {

constexpr uint64_t kTicksPerSecond = 10'000'000;
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr uint64_t kMaxReadCount = 0xFFFFFFFFull;
constexpr uint64_t kMaxSeekOffset = uint64_t{1} << 63;
// Far above any clock tick; a change time in the future (a clock set back) must not hang us.
constexpr uint64_t kMaxChangeTimeWaitNs = 50'000'000;

uint64_t ChangeTimeOf(const struct stat& info) {
  return static_cast<uint64_t>(info.st_ctim.tv_sec) * kNanosecondsPerSecond +
         static_cast<uint64_t>(info.st_ctim.tv_nsec);
}

FileSnapshot SnapshotOf(const struct stat& info) {
  return FileSnapshot{static_cast<uint64_t>(info.st_size), static_cast<uint64_t>(info.st_mtim.tv_sec) * kTicksPerSecond,
                      static_cast<uint64_t>(info.st_dev), static_cast<uint64_t>(info.st_ino), ChangeTimeOf(info)};
}

uint64_t CoarseNowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// O_NONBLOCK: a FIFO put in place of the file after its checks must not block the host.
constexpr int kReadOpenFlags = O_RDONLY | O_NOCTTY | O_NONBLOCK;
constexpr std::string_view kOpenStage = "open file";

// The decided file's descriptor; a refusal (the file changed since the decision) stands as it is.
CommandResult OpenForRead(const std::filesystem::path& path, ScopedFd& fd) {
  CommandResult opened = OpenDecidedFile(path, kReadOpenFlags, kOpenStage, fd);
  if (opened.ok || opened.error->category == kCategoryRefused) {
    return opened;
  }
  return MakeFileError(FileErrorKind::kReadFileFailed, opened);
}

int DescriptorOf(const CachedReadFile& file) { return file.is_open() ? file.handle->fd.get() : -1; }

CommandResult ReadFailure(std::string_view stage, int error) {
  return MakeFileError(FileErrorKind::kReadFileFailed, MakeSystemCommandError(stage, error));
}

CommandResult EditableTooLarge(uint64_t limit, const std::filesystem::path& path) {
  return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0,
                       fmt::format("editable file exceeds {} bytes: {}", limit, PathToUtf8(path)));
}

}  // namespace

CommandResult OpenCachedReadHandle(const std::filesystem::path& path, CachedReadFile& file) {
  // Nothing on POSIX is a transient open failure: one attempt.
  file.Close();
  file.path = path;
  ScopedFd fd;
  if (CommandResult opened = OpenForRead(path, fd); !opened.ok) {
    return opened;
  }
  ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  file.handle.reset(new OpenReadFile{std::move(fd)});
  return CommandResult::Success();
}

CommandResult ReadCached(const CachedReadFile& file, char* buffer, uint64_t count, uint64_t& bytes_read) {
  bytes_read = 0;
  if (!file.is_open() || count > kMaxReadCount) {
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0, "invalid cached read handle or read size");
  }
  const ssize_t n = RetryOnEintr([&] { return ::read(DescriptorOf(file), buffer, static_cast<size_t>(count)); });
  if (n < 0) {
    return ReadFailure("read file", errno);
  }
  bytes_read = static_cast<uint64_t>(n);
  return CommandResult::Success();
}

CommandResult SeekCached(const CachedReadFile& file, uint64_t offset) {
  if (!file.is_open() || offset >= kMaxSeekOffset) {
    return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0, "invalid cached read handle or seek offset");
  }
  if (::lseek(DescriptorOf(file), static_cast<off_t>(offset), SEEK_SET) < 0) {
    return ReadFailure("seek file", errno);
  }
  return CommandResult::Success();
}

CommandResult ReadFileIdentity(const std::filesystem::path& path, FileIdentity& identity) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return ReadFailure("inspect file identity", errno);
  }
  identity.volume_serial = static_cast<uint64_t>(info.st_dev);
  identity.file_index = static_cast<uint64_t>(info.st_ino);
  identity.change_time = ChangeTimeOf(info);
  return CommandResult::Success();
}

CommandResult TakeFileSnapshot(const std::filesystem::path& path, FileSnapshot& snapshot) {
  // One stat gives size, time and identity together, all of one state of one file, so the
  // "get file modification time" stage of the two-call platforms has no failure here.
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kReadFileFailed, "get file size",
                                      std::error_code(errno, std::generic_category()));
  }
  snapshot = SnapshotOf(info);
  return CommandResult::Success();
}

CommandResult CheckOpenedFileIsTheSnapshot(const CachedReadFile& file, const FileSnapshot& snapshot) {
  const CommandResult changed = FileChangedFailure();
  struct stat info {};
  if (!file.is_open() || ::fstat(DescriptorOf(file), &info) != 0) return changed;
  // The open itself proved the descriptor to be the file at `file.path`.
  return SnapshotOf(info) == snapshot ? CommandResult::Success() : changed;
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
  ScopedFd fd;
  if (CommandResult opened = OpenForRead(path, fd); !opened.ok) {
    return opened;
  }
  // The size and the type come from the open file, the one that is read.
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kReadFileFailed, "get file size",
                                      std::error_code(errno, std::generic_category()));
  }
  if (!S_ISREG(info.st_mode)) {
    return FileChangedFailure();
  }
  const auto size = static_cast<uint64_t>(info.st_size);
  if (limit < size) return EditableTooLarge(limit, path);
  CachedReadFile file;
  file.handle.reset(new OpenReadFile{std::move(fd)});
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
