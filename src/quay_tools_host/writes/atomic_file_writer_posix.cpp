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
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/spdlog.h>

#include "brimo_stack_common/log_summary.h"
#include "brimo_stack_common/posix/proc_files.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/writes/write_descriptors_posix.h"
#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr const char* kAccessAclAttribute = "system.posix_acl_access";
constexpr mode_t kDefaultNewFileMode = 0666;
constexpr std::string_view kPreserveStage = "preserve target file attributes";

CommandResult StageError(FileErrorKind kind, std::string_view stage, int error) {
  return MakeFileError(kind, MakeSystemCommandError(stage, error));
}

// Writes a temporary file and starts its writeback every few megabytes, so that the disk works
// while later bytes are still being copied and the closing fsync waits only for the tail.
// The hint has no failure of its own worth reporting: the fsync judges the write.
class TempFileWriter {
 public:
  TempFileWriter(int fd, FileErrorKind kind) : fd_(fd), kind_(kind) {}

  CommandResult Write(std::string_view bytes, uint64_t* bytes_written) {
    while (!bytes.empty()) {
      const size_t step = std::min(bytes.size(), kWritebackStepBytes - pending_);
      CommandResult written = WriteAllToFd(fd_, bytes.substr(0, step), kind_, "write temporary file", bytes_written);
      if (!written.ok) {
        return written;
      }
      bytes.remove_prefix(step);
      pending_ += step;
      if (pending_ == kWritebackStepBytes) {
        (void)::sync_file_range(fd_, static_cast<off_t>(flushed_), static_cast<off_t>(pending_), SYNC_FILE_RANGE_WRITE);
        flushed_ += pending_;
        pending_ = 0;
      }
    }
    return CommandResult::Success();
  }

 private:
  static constexpr size_t kWritebackStepBytes = size_t{4} << 20;
  int fd_;
  FileErrorKind kind_;
  uint64_t flushed_ = 0;
  size_t pending_ = 0;
};

void RemoveTemp(const WriteDirectory& directory, const std::string& temp_name) {
  if (::unlinkat(directory.fd(), temp_name.c_str(), 0) != 0 && errno != ENOENT) {
    const int error = errno;
    SPDLOG_WARN("atomic_write_cleanup_failed stage=delete_temporary_file path={} os_error_code={}",
                SummarizePathForLog(temp_name), error);
  }
}

// The umask without changing it: umask(2) can only be read by setting it, which races every
// thread that creates a file meanwhile; /proc/self/status shows it.
CommandResult ReadUmask(mode_t& mask) {
  const ScopedFd status(RetryOnEintr([] { return ::open("/proc/self/status", O_RDONLY | O_CLOEXEC); }));
  std::string text;
  char block[4096];
  for (ssize_t got = 1; status.valid() && got > 0;) {
    got = RetryOnEintr([&] { return ::read(status.get(), block, sizeof(block)); });
    text.append(block, static_cast<size_t>(std::max<ssize_t>(got, 0)));
  }
  constexpr std::string_view kField = "\nUmask:";
  if (const size_t at = text.find(kField); at != std::string::npos) {
    mask = static_cast<mode_t>(std::strtoul(text.c_str() + at + kField.size(), nullptr, 8) & 0777);
    return CommandResult::Success();
  }
  if (CommandResult proc = RequireProcFileSystem(kPreserveStage); !proc.ok) {
    return proc;
  }
  return MakeSystemCommandError(kPreserveStage, ENODATA);
}

CommandResult MoveAtWithRetry(const WriteDirectory& directory, const std::string& temp_name,
                              const std::string& target_name, MoveFileMode mode, FileErrorKind kind) {
  const std::string_view stage = mode == MoveFileMode::kCreate ? "atomically create file" : "atomically replace file";
  for (int attempt = 1;; ++attempt) {
    const int result = RetryOnEintr([&] {
      return mode == MoveFileMode::kCreate
                 ? ::renameat2(directory.fd(), temp_name.c_str(), directory.fd(), target_name.c_str(), RENAME_NOREPLACE)
                 : ::renameat(directory.fd(), temp_name.c_str(), directory.fd(), target_name.c_str());
    });
    if (result == 0) {
      // The rename is only durable once the directory is: a failed sync fails the write.
      return directory.Sync(kind, stage);
    }
    const int error = errno;
    if ((error != EBUSY && error != ETXTBSY) || attempt == kMoveFileAttempts) {
      return StageError(kind, stage, error);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kMoveFileRetryDelayMs));
  }
}

// Mode bits and the access ACL of `target_name` onto the temporary file.
CommandResult PreservePermissionsAt(const WriteDirectory& directory, const std::string& target_name,
                                    const struct stat& target_info, const std::string& temp_name,
                                    FileErrorKind kind) {
  const mode_t target_mode = target_info.st_mode;
  const uid_t target_uid = target_info.st_uid;
  const gid_t target_gid = target_info.st_gid;
  const ScopedFd temp(RetryOnEintr([&] {
    return ::openat(directory.fd(), temp_name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  }));
  struct stat temp_info {};
  if (!temp.valid() || ::fstat(temp.get(), &temp_info) != 0) {
    return StageError(kind, kPreserveStage, errno);
  }
  // The new file belongs to us, not to the old file's owner: set-id bits carried over to
  // another owner or group would hand the agent's bytes that owner's rights, so they go, as
  // chown drops them.
  mode_t mode = target_mode & 07777;
  if (temp_info.st_uid != target_uid || temp_info.st_gid != target_gid) {
    mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
  }
  if (::fchmod(temp.get(), mode) != 0) {
    return StageError(kind, kPreserveStage, errno);
  }
  // No call reads an extended attribute of an entry relative to a directory descriptor
  // without following a link; the directory's /proc name gives one.
  const std::string target_entry = directory.EntryPath(target_name);
  const ssize_t needed = ::lgetxattr(target_entry.c_str(), kAccessAclAttribute, nullptr, 0);
  if (needed < 0) {
    const int error = errno;
    // No ACL, or a file system without them: the mode bits say everything.
    if (error == ENODATA || error == ENOTSUP) {
      return CommandResult::Success();
    }
    if (CommandResult proc = RequireProcFileSystem("inspect target file ACL"); !proc.ok) {
      return MakeFileError(kind, proc);
    }
    return StageError(kind, "inspect target file ACL", error);
  }
  if (needed == 0) {
    return CommandResult::Success();
  }
  std::vector<char> acl(static_cast<size_t>(needed));
  const ssize_t read = ::lgetxattr(target_entry.c_str(), kAccessAclAttribute, acl.data(), acl.size());
  if (read < 0) {
    return StageError(kind, "read target file ACL", errno);
  }
  if (::fsetxattr(temp.get(), kAccessAclAttribute, acl.data(), static_cast<size_t>(read), 0) != 0) {
    return StageError(kind, "preserve target file ACL", errno);
  }
  return CommandResult::Success();
}

// A FIFO, a socket or a device at the target is a channel, not content to be replaced: the
// rename would put a plain file where something else listens. A directory is left to the
// rename, which refuses it.
bool IsSpecialFile(mode_t mode) { return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode); }

CommandResult SpecialTargetRefusal(const std::filesystem::path& target, FileErrorKind kind) {
  return MakeFileError(PathWalkWordsFor(kind).refusal_kind, kCategoryRefused, 1,
                       "path is not a regular file: " + target.string());
}

// Checked before the temporary is written, so that such a request costs nothing; the commit
// looks again before its rename. No rename can be made conditional on what it replaces, so a
// FIFO swapped in after that look is replaced; whoever can swap it in could remove it as well.
CommandResult RefuseSpecialTarget(const WriteDirectory& directory, const std::filesystem::path& target,
                                  FileErrorKind kind) {
  struct stat info {};
  const std::string name = EntryNameOf(target);
  if (::fstatat(directory.fd(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && IsSpecialFile(info.st_mode)) {
    return SpecialTargetRefusal(target, kind);
  }
  return CommandResult::Success();
}

// Gives the temporary file the target's permissions (or a new file's) and renames it into place.
CommandResult CommitTempFileAt(const WriteDirectory& directory, const std::string& temp_name,
                               const std::filesystem::path& target, FileErrorKind kind) {
  const std::string target_name = EntryNameOf(target);
  struct stat target_info {};
  const bool exists = ::fstatat(directory.fd(), target_name.c_str(), &target_info, AT_SYMLINK_NOFOLLOW) == 0;
  const int inspect_error = exists ? 0 : errno;
  MoveFileMode mode = MoveFileMode::kReplace;
  CommandResult prepared;
  if (!exists && (inspect_error == ENOENT || inspect_error == ENOTDIR)) {
    // A new file gets what a plain creation would have given it, not the 0600 of the temporary.
    mode_t mask = 022;
    prepared = ReadUmask(mask);
    if (prepared.ok && ::fchmodat(directory.fd(), temp_name.c_str(), kDefaultNewFileMode & ~mask, 0) != 0) {
      prepared = StageError(kind, kPreserveStage, errno);
    } else if (!prepared.ok) {
      prepared = MakeFileError(kind, prepared);
    }
    mode = MoveFileMode::kCreate;
  } else if (!exists) {
    prepared = StageError(kind, "inspect target file", inspect_error);
  } else if (IsSpecialFile(target_info.st_mode)) {
    prepared = SpecialTargetRefusal(target, kind);
  } else if ((target_info.st_mode & 0222) == 0) {
    prepared = MakeFileError(kind, kCategorySystem, EACCES, "target file is read-only");
  } else {
    prepared = PreservePermissionsAt(directory, target_name, target_info, temp_name, kind);
  }
  if (prepared.ok) {
    prepared = MoveAtWithRetry(directory, temp_name, target_name, mode, kind);
  }
  // A failed rename leaves the temporary; a failed directory flush after it finds none to remove.
  if (!prepared.ok) {
    RemoveTemp(directory, temp_name);
  }
  return prepared;
}

CommandResult CreateTemp(const WriteDirectory& directory, const std::string& temp_name, FileErrorKind kind,
                         ScopedFd& temp) {
  temp.Reset(RetryOnEintr([&] {
    return ::openat(directory.fd(), temp_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  }));
  if (!temp.valid()) {
    return StageError(kind, "create temporary file", errno);
  }
  return CommandResult::Success();
}

// Flush and close of a filled temporary file; any failure, `filled`'s included, removes it.
CommandResult FinishTemp(const WriteDirectory& directory, const std::string& temp_name, FileErrorKind kind,
                         ScopedFd& temp, CommandResult filled) {
  if (filled.ok && RetryOnEintr([&] { return ::fsync(temp.get()); }) != 0) {
    filled = StageError(kind, "flush temporary file", errno);
  }
  const int close_error = temp.Close();
  if (filled.ok && close_error != 0) {
    filled = StageError(kind, "close temporary file", close_error);
  }
  if (!filled.ok) {
    RemoveTemp(directory, temp_name);
  }
  return filled;
}

// Opens the target's directory without links, creates the temporary there, lets `fill` write
// it, then flushes, closes and commits it. Every failure removes the temporary.
template <typename Fill>
CommandResult ReplaceThroughTemp(const std::filesystem::path& temp, const std::filesystem::path& target,
                                 const std::filesystem::path& root, FileErrorKind kind, Fill fill) {
  WriteDirectory directory;
  CommandResult step = directory.OpenParentOf(target, root, kind);
  if (!step.ok) {
    return step;
  }
  step = RefuseSpecialTarget(directory, target, kind);
  if (!step.ok) {
    return step;
  }
  const std::string temp_name = EntryNameOf(temp);
  ScopedFd file;
  step = CreateTemp(directory, temp_name, kind, file);
  if (!step.ok) {
    return step;
  }
  TempFileWriter writer(file.get(), kind);
  step = FinishTemp(directory, temp_name, kind, file, fill(writer));
  if (!step.ok) {
    return step;
  }
  return CommitTempFileAt(directory, temp_name, target, kind);
}

}  // namespace

CommandResult WriteTempAndReplace(const std::filesystem::path& temp, const std::filesystem::path& target,
                                  std::string_view bytes, const std::filesystem::path& root) {
  return ReplaceThroughTemp(temp, target, root, FileErrorKind::kWriteFileFailed,
                            [bytes](TempFileWriter& writer) { return writer.Write(bytes, nullptr); });
}

CommandResult CopyFileAtomically(const std::filesystem::path& local, const std::filesystem::path& target,
                                 FileErrorKind kind, uint64_t& bytes_written, const std::filesystem::path& root) {
  bytes_written = 0;
  ScopedFd source;
  struct stat source_info {};
  CommandResult opened = OpenLocalSource(local, kind, source, source_info);
  if (!opened.ok) {
    return opened;
  }
  return ReplaceThroughTemp(MakeTempSiblingPath(target), target, root, kind, [&](TempFileWriter& writer) {
    CommandResult copied = CopyLocalSource(source.get(), static_cast<uint64_t>(source_info.st_size), kind, [&](std::string_view block) {
      return writer.Write(block, &bytes_written);
    });
    source.Reset();
    return copied;
  });
}

CommandResult MoveFileWithRetry(const std::filesystem::path& temp, const std::filesystem::path& target,
                                MoveFileMode mode, FileErrorKind kind) {
  WriteDirectory directory;
  CommandResult opened = directory.OpenParentOf(target, {}, kind);
  if (!opened.ok) {
    return opened;
  }
  return MoveAtWithRetry(directory, EntryNameOf(temp), EntryNameOf(target), mode, kind);
}

}  // namespace brimo_stack::quay_tools_host::internal
