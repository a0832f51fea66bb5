// The write-path walks on POSIX: a symbolic link is the reparse point, seen through lstat.
#include "quay_tools_host/writes/write_path_checks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

CommandResult ReparsePointError(const std::filesystem::path& path) {
  return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                       "write path contains a reparse point: " + path.string());
}

CommandResult NotADirectoryError(const std::filesystem::path& path) {
  return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                       "write path parent is not a directory: " + path.string());
}

CommandResult WriteSystemError(std::string_view stage, int error) {
  return MakeFileError(FileErrorKind::kWriteFileFailed, MakeSystemCommandError(stage, error));
}

}  // namespace

CommandResult InspectDirectoryComponent(const std::filesystem::path& directory) {
  struct stat info {};
  // lstat looks at the component itself, never at what a link there points to.
  if (RetryOnEintr([&] { return ::lstat(directory.c_str(), &info); }) != 0) {
    return WriteSystemError("inspect parent directory " + directory.string(), errno);
  }
  if (S_ISLNK(info.st_mode)) {
    return ReparsePointError(directory);
  }
  if (!S_ISDIR(info.st_mode)) {
    return NotADirectoryError(directory);
  }
  return CommandResult::Success();
}

CommandResult EnsureParentDirectories(const std::filesystem::path& parent, const std::filesystem::path& root) {
  for (const std::filesystem::path& directory : ListPathsFromTop(parent, root)) {
    CommandResult inspected = InspectDirectoryComponent(directory);
    if (inspected.ok) {
      continue;
    }
    struct stat info {};
    if (::lstat(directory.c_str(), &info) == 0) {
      // A concurrent creator may have made it since the first look: judge what stands there now.
      CommandResult again = InspectDirectoryComponent(directory);
      if (!again.ok) {
        return again;
      }
      continue;
    }
    const int missing_error = errno;
    if (missing_error != ENOENT && missing_error != ENOTDIR) {
      return WriteSystemError("inspect parent directory", missing_error);
    }
    // A concurrent creator of the same directory is no failure.
    if (::mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
      return WriteSystemError("create parent directory", errno);
    }
    CommandResult created = InspectDirectoryComponent(directory);
    if (!created.ok) {
      return created;
    }
  }
  return CommandResult::Success();
}

CommandResult CheckWritePathComponents(const std::filesystem::path& path, const std::filesystem::path& root) {
  const std::vector<std::filesystem::path> elements = ListPathsFromTop(path, root);
  for (size_t index = 0; index < elements.size(); ++index) {
    const std::filesystem::path& element = elements[index];
    std::error_code error;
    // The link's own status, so that a dangling link is seen as a link and not as a gap.
    const std::filesystem::file_status status = std::filesystem::symlink_status(element, error);
    if (status.type() == std::filesystem::file_type::none) {
      return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect write path", error);
    }
    if (status.type() == std::filesystem::file_type::not_found) {
      continue;
    }
    if (status.type() == std::filesystem::file_type::symlink) {
      return ReparsePointError(element);
    }
    if (index + 1 == elements.size()) {
      break;
    }
    const std::filesystem::file_status again = std::filesystem::symlink_status(element, error);
    if (again.type() == std::filesystem::file_type::none) {
      return MakeFileErrorFromErrorCode(FileErrorKind::kInvalidFilePath, "inspect write path parent", error);
    }
    if (again.type() == std::filesystem::file_type::symlink) {
      return ReparsePointError(element);
    }
    if (again.type() != std::filesystem::file_type::directory) {
      return NotADirectoryError(element);
    }
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
