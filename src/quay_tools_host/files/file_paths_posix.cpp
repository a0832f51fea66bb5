// The real path of a request path on POSIX, as the kernel names what an open descriptor holds.
#include "quay_tools_host/files/file_paths.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "brimo_stack_common/posix/proc_files.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr std::string_view kResolveStage = "resolve real path";

CommandResult RealPathFailure(CommandResult failure) {
  return MakeFileError(FileErrorKind::kInvalidFilePath, failure);
}

// One attempt; `replaced` is set when the file was unlinked while it was being named.
CommandResult ResolveRealPathOnce(std::filesystem::path& path, bool& replaced) {
  replaced = false;
  // O_PATH opens directories and follows links without needing read permission on the target.
  const ScopedFd fd(RetryOnEintr([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
  if (!fd.valid()) {
    return RealPathFailure(MakeSystemCommandError(kResolveStage, errno));
  }
  std::string text;
  if (CommandResult named = ReadDescriptorPath(fd.get(), kResolveStage, text); !named.ok) {
    return RealPathFailure(named);
  }
  // The kernel names an unlinked file "<old path> (deleted)": that is no path at all. The link
  // count is read after the name, so an unlink between the two is seen here.
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    return RealPathFailure(MakeSystemCommandError(kResolveStage, errno));
  }
  if (info.st_nlink == 0 && !S_ISDIR(info.st_mode)) {
    replaced = true;
    return RealPathFailure(MakeSystemCommandError(kResolveStage, ENOENT));
  }
  path = NormalizeFilePath(std::filesystem::path(std::move(text)), /*force_long=*/false);
  return CommandResult::Success();
}

}  // namespace

CommandResult ResolveRealPath(std::filesystem::path& path) {
  // A rename over the file between the open and the naming leaves the name of a dead inode;
  // the path itself still leads somewhere, so look again.
  constexpr int kAttempts = 4;
  CommandResult result;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::filesystem::path candidate = path;
    bool replaced = false;
    result = ResolveRealPathOnce(candidate, replaced);
    if (result.ok) path = std::move(candidate);
    if (!replaced) break;
  }
  return result;
}

}  // namespace brimo_stack::quay_tools_host::internal
