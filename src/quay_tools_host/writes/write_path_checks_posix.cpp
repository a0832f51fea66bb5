// The parent creation of the write-path walks on POSIX: each level opened without following a
// link and each missing one made with mkdirat in the level above, so a link swapped into the
// path meanwhile is refused, never followed.
#include "quay_tools_host/writes/write_path_checks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

CommandResult CreationFailure(std::string_view stage, int error, const PathWalkWords& words) {
  return MakeFileError(words.failure_kind, MakeSystemCommandError(stage, error));
}

int OpenLevel(int parent_fd, const std::filesystem::path& name) {
  return RetryOnEintr([&] {
    return ::openat(parent_fd, name.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC);
  });
}

// Why `directory` (entry `name` of `parent_fd`) could not be opened as a directory. ENOTDIR
// means a link or a file stood there; one that is a directory again by now was swapped, and
// counts as the link it was.
CommandResult LevelRefusal(int parent_fd, const std::filesystem::path& name, const std::filesystem::path& directory,
                           int open_error, const PathWalkWords& words) {
  struct stat info {};
  if (open_error != ENOTDIR && open_error != ELOOP) {
    return CreationFailure("inspect parent directory " + directory.string(), open_error, words);
  }
  if (::fstatat(parent_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISLNK(info.st_mode) &&
      !S_ISDIR(info.st_mode)) {
    return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.not_directory) + directory.string());
  }
  return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.contains_link) + directory.string());
}

}  // namespace

CommandResult EnsureParentDirectories(const std::filesystem::path& parent, const std::filesystem::path& root,
                                      const PathWalkWords& words) {
  const std::vector<std::filesystem::path> levels = ListPathsFromTop(parent, root);
  if (levels.empty()) {
    return CommandResult::Success();
  }
  // The walk starts above its first level: at "/" itself, or in the directory holding `root`,
  // which is reached as the system finds it (what lies above `root` is not the write's).
  const std::filesystem::path& top = levels.front();
  const bool top_is_root_directory = top == top.parent_path();
  const std::filesystem::path above =
      top_is_root_directory ? top : (top.parent_path().empty() ? std::filesystem::path(".") : top.parent_path());
  ScopedFd current(RetryOnEintr([&] { return ::open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  if (!current.valid()) {
    return CreationFailure("create parent directory", errno, words);
  }
  for (size_t index = top_is_root_directory ? 1 : 0; index < levels.size(); ++index) {
    const std::filesystem::path& directory = levels[index];
    const std::filesystem::path name = directory.filename();
    ScopedFd next(OpenLevel(current.get(), name));
    if (!next.valid() && errno == ENOENT) {
      // A concurrent creator of the same directory is no failure.
      if (::mkdirat(current.get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
        return CreationFailure("create parent directory", errno, words);
      }
      next.Reset(OpenLevel(current.get(), name));
    }
    if (!next.valid()) {
      return LevelRefusal(current.get(), name, directory, errno, words);
    }
    current = std::move(next);
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
