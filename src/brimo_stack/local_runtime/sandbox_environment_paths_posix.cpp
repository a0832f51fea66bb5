// The runtime roots' platform layer on POSIX: $TMPDIR or /tmp, and no long-path forms.
#include "brimo_stack/local_runtime/sandbox_environment_paths.h"

#include "brimo_stack/local_runtime/process_environment.h"

namespace brimo_stack::local_runtime {

std::filesystem::path PrepareWin32PathForFSAccess(const std::filesystem::path& path, bool /*force*/) {
  // The kernel takes any path up to PATH_MAX as it is; there is no prefix to add.
  return path;
}

namespace internal {

std::filesystem::path PathFromUtf8(std::string_view text) {
  // File names are bytes here: the text is the native form, valid UTF-8 or not.
  return std::filesystem::path(std::string(text));
}

CommandResult QuerySystemTempDirectory(std::filesystem::path& out) {
  const std::optional<std::string> tmpdir = GetProcessEnvironmentVariable("TMPDIR");
  out = std::filesystem::path(tmpdir.has_value() && !tmpdir->empty() ? *tmpdir : std::string("/tmp"));
  return CommandResult::Success();
}

}  // namespace internal

}  // namespace brimo_stack::local_runtime
