// The parent creation of the write-path walks on POSIX: a symbolic link is the reparse point,
// seen through lstat.
#include "quay_tools_host/writes/write_path_checks.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "brimo_stack_common/posix/retry_on_eintr.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

CommandResult CreationFailure(std::string_view stage, int error, const PathWalkWords& words) {
  return MakeFileError(words.failure_kind, MakeSystemCommandError(stage, error));
}

}  // namespace

CommandResult InspectDirectoryComponent(const std::filesystem::path& directory, const PathWalkWords& words) {
  struct stat info {};
  // lstat looks at the component itself, never at what a link there points to.
  if (RetryOnEintr([&] { return ::lstat(directory.c_str(), &info); }) != 0) {
    return CreationFailure("inspect parent directory " + directory.string(), errno, words);
  }
  if (S_ISLNK(info.st_mode)) {
    return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.contains_link) + directory.string());
  }
  if (!S_ISDIR(info.st_mode)) {
    return MakeFileError(words.refusal_kind, kCategoryRefused, 1, std::string(words.not_directory) + directory.string());
  }
  return CommandResult::Success();
}

CommandResult EnsureParentDirectories(const std::filesystem::path& parent, const std::filesystem::path& root,
                                      const PathWalkWords& words) {
  for (const std::filesystem::path& directory : ListPathsFromTop(parent, root)) {
    CommandResult inspected = InspectDirectoryComponent(directory, words);
    if (inspected.ok) {
      continue;
    }
    struct stat info {};
    if (::lstat(directory.c_str(), &info) == 0) {
      // A concurrent creator may have made it since the first look: judge what stands there now.
      CommandResult again = InspectDirectoryComponent(directory, words);
      if (!again.ok) {
        return again;
      }
      continue;
    }
    const int missing_error = errno;
    if (missing_error != ENOENT && missing_error != ENOTDIR) {
      return CreationFailure("inspect parent directory", missing_error, words);
    }
    // A concurrent creator of the same directory is no failure.
    if (::mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
      return CreationFailure("create parent directory", errno, words);
    }
    CommandResult created = InspectDirectoryComponent(directory, words);
    if (!created.ok) {
      return created;
    }
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
