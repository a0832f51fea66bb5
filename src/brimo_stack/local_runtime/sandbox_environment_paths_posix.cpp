// The runtime roots' platform layer on POSIX: $TMPDIR or /tmp.
#include "brimo_stack/local_runtime/sandbox_environment_paths.h"

#include "brimo_stack/local_runtime/process_environment.h"

namespace brimo_stack::local_runtime {

namespace internal {

CommandResult QuerySystemTempDirectory(std::filesystem::path& out) {
  const std::optional<std::string> tmpdir = GetProcessEnvironmentVariable("TMPDIR");
  out = std::filesystem::path(tmpdir.has_value() && !tmpdir->empty() ? *tmpdir : std::string("/tmp"));
  return CommandResult::Success();
}

}  // namespace internal

}  // namespace brimo_stack::local_runtime
