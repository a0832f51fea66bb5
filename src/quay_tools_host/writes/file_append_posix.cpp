// Appends on Linux: O_APPEND into a regular file reached without links, then fsync of the file
// and of its directory.
#include "quay_tools_host/writes/file_append.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/writes/write_descriptors_posix.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr FileErrorKind kKind = FileErrorKind::kWriteFileFailed;

CommandResult StageError(std::string_view stage, int error) {
  return MakeFileError(kKind, MakeSystemCommandError(stage, error));
}

CommandResult NotRegular() {
  return MakeFileError(kKind, kCategoryRefused, 1, "append target must be a regular non-reparse file");
}

// The target's directory and the target itself, opened for appending and proved regular.
CommandResult OpenAppendTarget(const std::filesystem::path& target, WriteDirectory& directory, ScopedFd& out,
                               struct stat& info) {
  CommandResult opened = directory.OpenParentOf(target, {}, kKind);
  if (!opened.ok) {
    return opened;
  }
  const std::string name = EntryNameOf(target);
  out.Reset(RetryOnEintr([&] {
    return ::openat(directory.fd(), name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                    0666);
  }));
  if (!out.valid()) {
    const int error = errno;
    // A link, a directory or a FIFO without reader: none is a regular file.
    return error == ELOOP || error == EISDIR || error == ENXIO ? NotRegular() : StageError("open append target", error);
  }
  if (::fstat(out.get(), &info) != 0) {
    return StageError("inspect append target", errno);
  }
  return S_ISREG(info.st_mode) ? CommandResult::Success() : NotRegular();
}

// Flush of the appended file and of its directory (the file may be new), then the close.
CommandResult FinishAppend(const WriteDirectory& directory, ScopedFd& target) {
  if (RetryOnEintr([&] { return ::fsync(target.get()); }) != 0) {
    return StageError("flush append target", errno);
  }
  if (CommandResult synced = directory.Sync(kKind, "flush append target"); !synced.ok) {
    return synced;
  }
  if (const int close_error = target.Close(); close_error != 0) {
    return StageError("close append target", close_error);
  }
  return CommandResult::Success();
}

}  // namespace

CommandResult AppendBytesToFile(const std::filesystem::path& target, std::string_view bytes, uint64_t& bytes_written) {
  bytes_written = 0;
  WriteDirectory directory;
  ScopedFd file;
  struct stat info {};
  CommandResult step = OpenAppendTarget(target, directory, file, info);
  if (!step.ok) {
    return step;
  }
  step = WriteAllToFd(file.get(), bytes, kKind, "append target file", &bytes_written);
  if (!step.ok) {
    return step;
  }
  return FinishAppend(directory, file);
}

CommandResult AppendFileToFile(const std::filesystem::path& local, const std::filesystem::path& target,
                               uint64_t& bytes_written) {
  bytes_written = 0;
  ScopedFd source;
  struct stat source_info {};
  CommandResult step = OpenLocalSource(local, kKind, source, source_info);
  if (!step.ok) {
    return step;
  }
  WriteDirectory directory;
  ScopedFd file;
  struct stat target_info {};
  step = OpenAppendTarget(target, directory, file, target_info);
  if (!step.ok) {
    return step;
  }
  // Compared on the open descriptors, so no second name or hard link gets past it.
  if (source_info.st_dev == target_info.st_dev && source_info.st_ino == target_info.st_ino) {
    return MakeFileError(kKind, kCategoryRefused, 1, "local_path and append target must be different files");
  }
  step = CopyLocalSource(source.get(), static_cast<uint64_t>(source_info.st_size), kKind, [&](std::string_view block) {
    return WriteAllToFd(file.get(), block, kKind, "append target file", &bytes_written);
  });
  if (!step.ok) {
    return step;
  }
  source.Reset();
  return FinishAppend(directory, file);
}

}  // namespace brimo_stack::quay_tools_host::internal
