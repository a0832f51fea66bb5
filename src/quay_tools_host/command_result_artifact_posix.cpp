// The result artifact on Linux: its directory opened from the root without following a link,
// then a temporary sibling created there exclusively and renamed into place without replacing.
#include "quay_tools_host/command_result_artifact.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/files/link_free_open_posix.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/write_descriptors_posix.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr std::string_view kDirectoryUnavailableMessage = "file command result directory is unavailable";
constexpr std::string_view kOpenFailedMessage = "open file command result artifact failed";
constexpr std::string_view kWriteFailedMessage = "write file command result artifact failed";
constexpr std::string_view kInspectDirectoryStage = "inspect file command result directory";
constexpr std::string_view kInspectArtifactStage = "inspect file command result artifact";

CommandResult DirectoryFailure(int error) {
  if (error == ELOOP || error == EXDEV) {
    // A link below the root could lead anywhere; it counts as leaving the root.
    return ArtifactFailure(kArtifactEscapesMessage);
  }
  if (error == ENOTDIR) {
    return ArtifactFailure(kDirectoryUnavailableMessage);
  }
  return MakeSystemCommandError(kInspectDirectoryStage, error);
}

// The directory that will hold the artifact, held open so that every later step acts in it
// and not in whatever its name leads to by then.
CommandResult OpenArtifactDirectory(const std::filesystem::path& root, const std::filesystem::path& parent,
                                    ScopedFd& directory) {
  // The root is the host's own configuration ($TMPDIR may be a link); below it the agent may
  // have a hand in what stands, so nothing there is followed.
  const ScopedFd root_fd(RetryOnEintr([&] { return ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  if (!root_fd.valid()) {
    return DirectoryFailure(errno);
  }
  directory.Reset(OpenWithoutLinks(root_fd.get(), parent.empty() ? std::filesystem::path(".") : parent,
                                   O_RDONLY | O_DIRECTORY | O_CLOEXEC, RESOLVE_BENEATH));
  if (!directory.valid()) {
    return DirectoryFailure(errno);
  }
  return CommandResult::Success();
}

// Fills the exclusively created temporary and renames it to `name` where no entry exists, so
// neither a file that came up meanwhile nor a link put in its place is ever replaced.
CommandResult WriteAndPublish(int directory, const std::string& name, std::string_view bytes) {
  const std::string temp_name = EntryNameOf(MakeTempSiblingPath(name));
  ScopedFd temp(RetryOnEintr([&] {
    return ::openat(directory, temp_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  }));
  if (!temp.valid()) {
    return ArtifactFailure(kOpenFailedMessage);
  }
  const bool filled = WriteAllToFd(temp.get(), bytes, FileErrorKind::kWriteFileFailed, kWriteFailedMessage, nullptr).ok &&
                      RetryOnEintr([&] { return ::fsync(temp.get()); }) == 0;
  const bool closed = temp.Close() == 0;
  CommandResult outcome = CommandResult::Success();
  if (!filled || !closed) {
    outcome = ArtifactFailure(kWriteFailedMessage);
  } else if (RetryOnEintr([&] {
               return ::renameat2(directory, temp_name.c_str(), directory, name.c_str(), RENAME_NOREPLACE);
             }) != 0) {
    outcome = ArtifactFailure(errno == EEXIST ? kArtifactExistsMessage : kWriteFailedMessage);
  }
  if (!outcome.ok) {
    (void)::unlinkat(directory, temp_name.c_str(), 0);
  }
  return outcome;
}

}  // namespace

CommandResult CreateResultArtifact(const std::filesystem::path& root, const std::filesystem::path& relative,
                                   const std::function<CommandResult(std::string&)>& serialize) {
  ScopedFd directory;
  if (CommandResult opened = OpenArtifactDirectory(root, relative.parent_path(), directory); !opened.ok) {
    return opened;
  }
  // Looked at first so that a taken name costs no serialisation; the rename decides in the end.
  const std::string name = EntryNameOf(relative);
  struct stat info {};
  if (::fstatat(directory.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    return ArtifactFailure(kArtifactExistsMessage);
  }
  if (errno != ENOENT) {
    return MakeSystemCommandError(kInspectArtifactStage, errno);
  }
  std::string bytes;
  if (CommandResult serialized = serialize(bytes); !serialized.ok) {
    return serialized;
  }
  return WriteAndPublish(directory.get(), name, bytes);
}

}  // namespace brimo_stack::quay_tools_host::internal
