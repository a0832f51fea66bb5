// The atomic writer on Linux: O_EXCL temporary, fsync, mode and ACL carried over, renameat2,
// directory fsync, all relative to a directory opened without following links.
#include "quay_tools_host/writes/atomic_file_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/spdlog.h>

#include "brimo_stack_common/string_util.h"
#include "quay_tools_host/writes/write_directory_posix.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr const char* kAccessAclAttribute = "system.posix_acl_access";
constexpr mode_t kDefaultNewFileMode = 0666;
constexpr size_t kMaxWriteCall = 0x7ffff000;  // the kernel's own limit of one write

// Owns one descriptor; closing reports its own error once.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { (void)Close(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  void Reset(int fd) {
    (void)Close();
    fd_ = fd;
  }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  // 0 or errno; EINTR from close on Linux means the descriptor is gone, so it is no failure.
  [[nodiscard]] int Close() {
    if (fd_ < 0) {
      return 0;
    }
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0 || errno == EINTR ? 0 : errno;
  }

 private:
  int fd_;
};

CommandResult StageError(FileErrorKind kind, std::string_view stage, int error) {
  return MakeFileError(kind, kCategorySystem, error, FormatSystemError(stage, error));
}

int RetryOpen(int dir_fd, const char* name, int flags, mode_t mode = 0) {
  int fd = -1;
  do {
    fd = ::openat(dir_fd, name, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int RetryFsync(int fd) {
  while (::fsync(fd) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

// Writes everything; 0 or errno, EIO for a call that wrote nothing.
int WriteAll(int fd, std::string_view bytes, uint64_t* bytes_written) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), std::min(bytes.size(), kMaxWriteCall));
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (written == 0) {
      return EIO;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
    if (bytes_written != nullptr) {
      *bytes_written += static_cast<uint64_t>(written);
    }
  }
  return 0;
}

// Writes a temporary file and starts its writeback every few megabytes, so that the disk works
// while later bytes are still being copied and the closing fsync waits only for the tail.
// The hint has no failure of its own worth reporting: the fsync judges the write.
class TempFileWriter {
 public:
  explicit TempFileWriter(int fd) : fd_(fd) {}

  int Write(std::string_view bytes, uint64_t* bytes_written) {
    while (!bytes.empty()) {
      const size_t step = std::min(bytes.size(), kWritebackStepBytes - pending_);
      const int error = WriteAll(fd_, bytes.substr(0, step), bytes_written);
      if (error != 0) {
        return error;
      }
      bytes.remove_prefix(step);
      pending_ += step;
      if (pending_ == kWritebackStepBytes) {
        (void)::sync_file_range(fd_, static_cast<off_t>(flushed_), static_cast<off_t>(pending_), SYNC_FILE_RANGE_WRITE);
        flushed_ += pending_;
        pending_ = 0;
      }
    }
    return 0;
  }

 private:
  static constexpr size_t kWritebackStepBytes = size_t{4} << 20;
  int fd_;
  uint64_t flushed_ = 0;
  size_t pending_ = 0;
};

ssize_t RetryRead(int fd, char* buffer, size_t count) {
  ssize_t result = 0;
  do {
    result = ::read(fd, buffer, count);
  } while (result < 0 && errno == EINTR);
  return result;
}

std::string NameOf(const std::filesystem::path& path) { return path.filename().native(); }

void RemoveTemp(const WriteDirectory& directory, const std::string& temp_name) {
  if (::unlinkat(directory.fd(), temp_name.c_str(), 0) != 0 && errno != ENOENT) {
    const int error = errno;
    SPDLOG_WARN("atomic_write_cleanup_failed stage=delete_temporary_file path={} os_error_code={}",
                SummarizePathForLog(temp_name), error);
  }
}

// The umask without changing it: umask(2) can only be read by setting it, which races threads.
mode_t CurrentUmask() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Umask:", 0) == 0) {
      return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8) & 0777);
    }
  }
  return 022;
}

// Opens the target's directory after the walk; refusals carry the target's path.
bool OpenTargetDirectory(const std::filesystem::path& target, const std::filesystem::path& root, FileErrorKind kind,
                         WriteDirectory& directory, CommandResult& failure) {
  const std::filesystem::path parent = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
  const int error = directory.Open(parent, root);
  if (error != 0) {
    failure = WriteDirectoryOpenError(error, parent, target, kind);
    return false;
  }
  return true;
}

bool MoveAtWithRetry(const WriteDirectory& directory, const std::string& temp_name, const std::string& target_name,
                     MoveFileMode mode, int& error) {
  for (int attempt = 1; attempt <= kMoveFileAttempts; ++attempt) {
    int result = 0;
    do {
      result = mode == MoveFileMode::kCreate
                   ? ::renameat2(directory.fd(), temp_name.c_str(), directory.fd(), target_name.c_str(),
                                 RENAME_NOREPLACE)
                   : ::renameat(directory.fd(), temp_name.c_str(), directory.fd(), target_name.c_str());
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
      error = 0;
      return true;
    }
    error = errno;
    if ((error != EBUSY && error != ETXTBSY) || attempt == kMoveFileAttempts) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kMoveFileRetryDelayMs));
  }
  return false;
}

// Mode bits and the access ACL of `target_name` onto the temporary file.
bool PreservePermissionsAt(const WriteDirectory& directory, const std::string& target_name, mode_t target_mode,
                           const std::string& temp_name, FileErrorKind kind, CommandResult& failure) {
  UniqueFd temp(RetryOpen(directory.fd(), temp_name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!temp.valid() || ::fchmod(temp.get(), target_mode & 07777) != 0) {
    failure = StageError(kind, "preserve target file attributes", errno);
    return false;
  }
  const std::string target_entry = directory.EntryPath(target_name);
  const ssize_t needed = ::lgetxattr(target_entry.c_str(), kAccessAclAttribute, nullptr, 0);
  if (needed < 0) {
    // No ACL, or a file system without them: the mode bits say everything.
    if (errno == ENODATA || errno == ENOTSUP) {
      return true;
    }
    failure = StageError(kind, "inspect target file ACL", errno);
    return false;
  }
  if (needed == 0) {
    return true;
  }
  std::vector<char> acl(static_cast<size_t>(needed));
  const ssize_t read = ::lgetxattr(target_entry.c_str(), kAccessAclAttribute, acl.data(), acl.size());
  if (read < 0) {
    failure = StageError(kind, "read target file ACL", errno);
    return false;
  }
  if (::fsetxattr(temp.get(), kAccessAclAttribute, acl.data(), static_cast<size_t>(read), 0) != 0) {
    failure = StageError(kind, "preserve target file ACL", errno);
    return false;
  }
  return true;
}

bool CommitTempFileAt(const WriteDirectory& directory, const std::string& temp_name, const std::string& target_name,
                      FileErrorKind kind, CommandResult& failure) {
  struct stat target_info {};
  const bool exists = ::fstatat(directory.fd(), target_name.c_str(), &target_info, AT_SYMLINK_NOFOLLOW) == 0;
  const int inspect_error = exists ? 0 : errno;
  std::string_view move_stage = "atomically replace file";
  MoveFileMode mode = MoveFileMode::kReplace;
  if (!exists && (inspect_error == ENOENT || inspect_error == ENOTDIR)) {
    // A new file gets what a plain creation would have given it, not the 0600 of the temporary.
    if (::fchmodat(directory.fd(), temp_name.c_str(), kDefaultNewFileMode & ~CurrentUmask(), 0) != 0) {
      failure = StageError(kind, "preserve target file attributes", errno);
      RemoveTemp(directory, temp_name);
      return false;
    }
    move_stage = "atomically create file";
    mode = MoveFileMode::kCreate;
  } else if (!exists) {
    failure = StageError(kind, "inspect target file", inspect_error);
    RemoveTemp(directory, temp_name);
    return false;
  } else {
    if ((target_info.st_mode & 0222) == 0) {
      failure = MakeFileError(kind, kCategorySystem, EACCES, "target file is read-only");
      RemoveTemp(directory, temp_name);
      return false;
    }
    if (!PreservePermissionsAt(directory, target_name, target_info.st_mode, temp_name, kind, failure)) {
      RemoveTemp(directory, temp_name);
      return false;
    }
  }
  int move_error = 0;
  if (!MoveAtWithRetry(directory, temp_name, target_name, mode, move_error)) {
    failure = StageError(kind, move_stage, move_error);
    RemoveTemp(directory, temp_name);
    return false;
  }
  // The rename is only durable once the directory is: a failed sync fails the write.
  const int sync_error = directory.Sync();
  if (sync_error != 0) {
    failure = StageError(kind, move_stage, sync_error);
    return false;
  }
  return true;
}

bool CreateTemp(const WriteDirectory& directory, const std::string& temp_name, FileErrorKind kind, UniqueFd& temp,
                CommandResult& failure) {
  temp.Reset(RetryOpen(directory.fd(), temp_name.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!temp.valid()) {
    failure = StageError(kind, "create temporary file", errno);
    return false;
  }
  return true;
}

// Flush and close of a filled temporary file; a failure removes it.
bool FinishTemp(const WriteDirectory& directory, const std::string& temp_name, FileErrorKind kind, UniqueFd& temp,
                CommandResult& failure, bool filled) {
  if (filled) {
    const int sync_error = RetryFsync(temp.get());
    if (sync_error != 0) {
      failure = StageError(kind, "flush temporary file", sync_error);
      filled = false;
    }
  }
  const int close_error = temp.Close();
  if (filled && close_error != 0) {
    failure = StageError(kind, "close temporary file", close_error);
    filled = false;
  }
  if (!filled) {
    RemoveTemp(directory, temp_name);
  }
  return filled;
}

// A local source opened without following a link and proved to be a regular file.
bool OpenLocalSource(const std::filesystem::path& local, FileErrorKind kind, UniqueFd& source, struct stat& info,
                     CommandResult& failure) {
  // O_NONBLOCK keeps a FIFO from hanging the open; it is refused just below.
  source.Reset(RetryOpen(AT_FDCWD, local.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!source.valid()) {
    const int error = errno;
    if (error == ELOOP) {
      failure = MakeFileError(kind, kCategoryRefused, 1, "local_path must be a regular non-reparse file");
    } else {
      failure = StageError(kind, "open local_path", error);
    }
    return false;
  }
  if (::fstat(source.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    failure = MakeFileError(kind, kCategoryRefused, 1, "local_path must be a regular non-reparse file");
    return false;
  }
  return true;
}

bool OpenAppendTarget(const WriteDirectory& directory, const std::filesystem::path& target, UniqueFd& out,
                      struct stat& info, CommandResult& failure) {
  constexpr FileErrorKind kind = FileErrorKind::kWriteFileFailed;
  const std::string name = NameOf(target);
  out.Reset(RetryOpen(directory.fd(), name.c_str(),
                           O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (!out.valid()) {
    const int error = errno;
    // A link, a directory or a FIFO without reader: none is a regular file.
    if (error == ELOOP || error == EISDIR || error == ENXIO) {
      failure = MakeFileError(kind, kCategoryRefused, 1, "append target must be a regular non-reparse file");
    } else {
      failure = StageError(kind, "open append target", error);
    }
    return false;
  }
  if (::fstat(out.get(), &info) != 0) {
    failure = StageError(kind, "inspect append target", errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    failure = MakeFileError(kind, kCategoryRefused, 1, "append target must be a regular non-reparse file");
    return false;
  }
  return true;
}

// Flush of the appended file and of its directory (the file may be new), then the close.
bool FinishAppend(const WriteDirectory& directory, UniqueFd& target, CommandResult& failure) {
  constexpr FileErrorKind kind = FileErrorKind::kWriteFileFailed;
  int sync_error = RetryFsync(target.get());
  if (sync_error == 0) {
    sync_error = directory.Sync();
  }
  if (sync_error != 0) {
    failure = StageError(kind, "flush append target", sync_error);
    (void)target.Close();
    return false;
  }
  const int close_error = target.Close();
  if (close_error != 0) {
    failure = StageError(kind, "close append target", close_error);
    return false;
  }
  return true;
}

}  // namespace

bool WriteTempAndReplace(const std::filesystem::path& temp, const std::filesystem::path& target,
                         std::string_view bytes, CommandResult& failure, const std::filesystem::path& root) {
  constexpr FileErrorKind kind = FileErrorKind::kWriteFileFailed;
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, root, kind, directory, failure)) {
    return false;
  }
  const std::string temp_name = NameOf(temp);
  UniqueFd file;
  if (!CreateTemp(directory, temp_name, kind, file, failure)) {
    return false;
  }
  const int write_error = TempFileWriter(file.get()).Write(bytes, nullptr);
  if (write_error != 0) {
    failure = StageError(kind, "write temporary file", write_error);
  }
  if (!FinishTemp(directory, temp_name, kind, file, failure, write_error == 0)) {
    return false;
  }
  return CommitTempFileAt(directory, temp_name, NameOf(target), kind, failure);
}

bool CopyFileAtomically(const std::filesystem::path& local, const std::filesystem::path& target, FileErrorKind kind,
                        uint64_t& bytes_written, CommandResult& failure, const std::filesystem::path& root) {
  bytes_written = 0;
  const std::filesystem::path temp = MakeTempSiblingPath(target);
  UniqueFd source;
  struct stat source_info {};
  if (!OpenLocalSource(local, kind, source, source_info, failure)) {
    return false;
  }
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, root, kind, directory, failure)) {
    return false;
  }
  const std::string temp_name = NameOf(temp);
  UniqueFd file;
  if (!CreateTemp(directory, temp_name, kind, file, failure)) {
    return false;
  }
  std::vector<char> block(kCopyBlockBytes);
  TempFileWriter writer(file.get());
  bool good = true;
  while (good) {
    const ssize_t got = RetryRead(source.get(), block.data(), block.size());
    if (got < 0) {
      failure = StageError(kind, "read local_path", errno);
      good = false;
    } else if (got == 0) {
      break;
    } else {
      const int write_error = writer.Write(std::string_view(block.data(), static_cast<size_t>(got)), &bytes_written);
      if (write_error != 0) {
        failure = StageError(kind, "write temporary file", write_error);
        good = false;
      }
    }
  }
  (void)source.Close();
  if (!FinishTemp(directory, temp_name, kind, file, failure, good)) {
    return false;
  }
  return CommitTempFileAt(directory, temp_name, NameOf(target), kind, failure);
}

bool CommitTempFile(const std::filesystem::path& temp, const std::filesystem::path& target, FileErrorKind kind,
                    CommandResult& failure) {
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, {}, kind, directory, failure)) {
    (void)::unlink(temp.c_str());
    return false;
  }
  return CommitTempFileAt(directory, NameOf(temp), NameOf(target), kind, failure);
}

bool PreserveTargetPermissions(const std::filesystem::path& target, const std::filesystem::path& temp,
                               FileErrorKind kind, CommandResult& failure) {
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, {}, kind, directory, failure)) {
    return false;
  }
  struct stat info {};
  if (::fstatat(directory.fd(), NameOf(target).c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    failure = StageError(kind, "inspect target file", errno);
    return false;
  }
  return PreservePermissionsAt(directory, NameOf(target), info.st_mode, NameOf(temp), kind, failure);
}

bool MoveFileWithRetry(const std::filesystem::path& temp, const std::filesystem::path& target, MoveFileMode mode,
                       int& error) {
  WriteDirectory directory;
  const std::filesystem::path parent = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
  error = directory.Open(parent, {});
  if (error != 0) {
    return false;
  }
  if (!MoveAtWithRetry(directory, NameOf(temp), NameOf(target), mode, error)) {
    return false;
  }
  error = directory.Sync();
  return error == 0;
}

bool AppendBytesToFile(const std::filesystem::path& target, std::string_view bytes, uint64_t& bytes_written,
                       CommandResult& failure) {
  bytes_written = 0;
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, {}, FileErrorKind::kWriteFileFailed, directory, failure)) {
    return false;
  }
  UniqueFd file;
  struct stat info {};
  if (!OpenAppendTarget(directory, target, file, info, failure)) {
    return false;
  }
  const int write_error = WriteAll(file.get(), bytes, &bytes_written);
  if (write_error != 0) {
    failure = StageError(FileErrorKind::kWriteFileFailed, "append target file", write_error);
    return false;
  }
  return FinishAppend(directory, file, failure);
}

bool AppendFileToFile(const std::filesystem::path& local, const std::filesystem::path& target,
                      uint64_t& bytes_written, CommandResult& failure) {
  constexpr FileErrorKind kind = FileErrorKind::kWriteFileFailed;
  bytes_written = 0;
  UniqueFd source;
  struct stat source_info {};
  if (!OpenLocalSource(local, kind, source, source_info, failure)) {
    return false;
  }
  WriteDirectory directory;
  if (!OpenTargetDirectory(target, {}, kind, directory, failure)) {
    return false;
  }
  UniqueFd file;
  struct stat target_info {};
  if (!OpenAppendTarget(directory, target, file, target_info, failure)) {
    return false;
  }
  // Compared on the open descriptors, so no second name or hard link gets past it.
  if (source_info.st_dev == target_info.st_dev && source_info.st_ino == target_info.st_ino) {
    failure = MakeFileError(kind, kCategoryRefused, 1, "local_path and append target must be different files");
    return false;
  }
  std::vector<char> block(kCopyBlockBytes);
  while (true) {
    const ssize_t got = RetryRead(source.get(), block.data(), block.size());
    if (got < 0) {
      failure = StageError(kind, "read local_path", errno);
      return false;
    }
    if (got == 0) {
      break;
    }
    const int write_error =
        WriteAll(file.get(), std::string_view(block.data(), static_cast<size_t>(got)), &bytes_written);
    if (write_error != 0) {
      failure = StageError(kind, "append target file", write_error);
      return false;
    }
  }
  (void)source.Close();
  return FinishAppend(directory, file, failure);
}

}  // namespace brimo_stack::quay_tools_host::internal
