// The directory open with RESOLVE_NO_SYMLINKS, or one component at a time where the kernel
// lacks openat2; the local source open and the whole-buffer write.
#include "quay_tools_host/writes/write_descriptors_posix.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "brimo_stack_common/posix/proc_files.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "quay_tools_host/files/link_free_open_posix.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr size_t kMaxWriteCall = 0x7ffff000;  // the kernel's own limit of one write

int OpenAt(int dir_fd, const char* name, int flags) {
  return RetryOnEintr([&] { return ::openat(dir_fd, name, flags); });
}

CommandResult OpenFailure(int error, const std::filesystem::path& directory, const std::filesystem::path& reported,
                          FileErrorKind kind) {
  const PathWalkWords& words = PathWalkWordsFor(kind);
  if (error == ELOOP || error == EXDEV) {
    return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.contains_link) + reported.string());
  }
  if (error == ENOTDIR) {
    return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.not_directory) + reported.string());
  }
  return MakeFileError(kind, MakeSystemCommandError("inspect parent directory " + directory.string(), error));
}

}  // namespace

CommandResult WriteDirectory::Open(const std::filesystem::path& directory, const std::filesystem::path& root,
                                   const std::filesystem::path& reported, FileErrorKind kind) {
  ScopedFd anchor;
  std::filesystem::path relative = directory;
  uint64_t resolve = 0;
  if (!root.empty()) {
    const std::filesystem::path above_root = root.parent_path();
    anchor.Reset(OpenAt(AT_FDCWD, above_root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!anchor.valid()) {
      return OpenFailure(errno, directory, reported, kind);
    }
    relative = directory.lexically_relative(above_root);
    resolve = RESOLVE_BENEATH;
    if (relative.empty()) {
      return OpenFailure(EXDEV, directory, reported, kind);
    }
  }
  ScopedFd opened(
      OpenWithoutLinks(anchor.valid() ? anchor.get() : AT_FDCWD, relative, O_RDONLY | O_DIRECTORY | O_CLOEXEC, resolve));
  if (!opened.valid()) {
    return OpenFailure(errno, directory, reported, kind);
  }
  fd_ = std::move(opened);
  return CommandResult::Success();
}

CommandResult WriteDirectory::OpenParentOf(const std::filesystem::path& target, const std::filesystem::path& root,
                                           FileErrorKind kind) {
  const std::filesystem::path parent = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
  return Open(parent, root, target, kind);
}

std::string WriteDirectory::EntryPath(std::string_view name) const {
  std::string path = DescriptorProcPath(fd_.get());
  path += '/';
  path += name;
  return path;
}

CommandResult WriteDirectory::Sync(FileErrorKind kind, std::string_view stage) const {
  if (RetryOnEintr([&] { return ::fsync(fd_.get()); }) != 0) {
    return MakeFileError(kind, MakeSystemCommandError(stage, errno));
  }
  return CommandResult::Success();
}

CommandResult WriteAllToFd(int fd, std::string_view bytes, FileErrorKind kind, std::string_view stage,
                           uint64_t* bytes_written) {
  while (!bytes.empty()) {
    const ssize_t written =
        RetryOnEintr([&] { return ::write(fd, bytes.data(), std::min(bytes.size(), kMaxWriteCall)); });
    if (written <= 0) {
      return MakeFileError(kind, MakeSystemCommandError(stage, written < 0 ? errno : EIO));
    }
    bytes.remove_prefix(static_cast<size_t>(written));
    if (bytes_written != nullptr) {
      *bytes_written += static_cast<uint64_t>(written);
    }
  }
  return CommandResult::Success();
}

CommandResult OpenLocalSource(const std::filesystem::path& local, FileErrorKind kind, ScopedFd& source,
                              struct stat& info) {
  const auto not_regular = [kind] {
    return MakeFileError(kind, kCategoryRefused, 1, "local_path must be a regular non-reparse file");
  };
  // `local` is the real path the policy decided on, so no link may be met on the way to it; a
  // link swapped in since then would lead the copy to a file the policy never saw. O_NONBLOCK
  // keeps a FIFO from hanging the open; it is refused just below.
  CommandResult opened = OpenDecidedFile(local, O_RDONLY | O_NONBLOCK | O_NOCTTY, "open local_path", source);
  if (!opened.ok) {
    // A refusal means a link now stands where the decided file or one of its directories was.
    return opened.error->category == kCategoryRefused ? not_regular() : MakeFileError(kind, opened);
  }
  if (::fstat(source.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return not_regular();
  }
  return CommandResult::Success();
}

CommandResult CopyLocalSource(int source, uint64_t size, FileErrorKind kind,
                              const std::function<CommandResult(std::string_view)>& sink) {
  std::vector<char> block(kCopyBlockBytes);
  for (uint64_t left = size; left > 0;) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, block.size()));
    const ssize_t got = RetryOnEintr([&] { return ::read(source, block.data(), want); });
    if (got < 0) {
      return MakeFileError(kind, MakeSystemCommandError("read local_path", errno));
    }
    if (got == 0) {
      break;
    }
    left -= static_cast<uint64_t>(got);
    CommandResult written = sink(std::string_view(block.data(), static_cast<size_t>(got)));
    if (!written.ok) {
      return written;
    }
  }
  return CommandResult::Success();
}

std::string EntryNameOf(const std::filesystem::path& path) { return path.filename().native(); }

}  // namespace brimo_stack::quay_tools_host::internal
