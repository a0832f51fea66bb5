// Where the host may put its own files: the runtime artifact root and the tool outputs root.
#pragma once

#include <filesystem>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime {

// The runtime artifact root, or an empty path (and an error line) when it can't be resolved.
[[nodiscard]] std::filesystem::path BrimoStackRuntimeArtifactRoot(std::string_view install_dir);

// `<parent of install_dir>/brimo_stack` when install_dir ends in "sandbox_envs_dir", else
// `<system temp>/qz`. Creates nothing; `out` is empty on failure.
[[nodiscard]] CommandResult ResolveRuntimeArtifactRoot(std::filesystem::path& out, std::string_view install_dir);

// The runtime artifact root followed by "to".
[[nodiscard]] CommandResult ResolveToolOutputsRoot(std::filesystem::path& out, std::string_view install_dir);

// The system's temporary directory, normalised and checked to be an absolute existing
// directory other than a filesystem root.
[[nodiscard]] CommandResult ResolveSystemTempRootForSandboxFiles(std::filesystem::path& out);

namespace internal {

// The platform layer under the portable functions above.

// The temporary directory as the system names it, before any validation.
[[nodiscard]] CommandResult QuerySystemTempDirectory(std::filesystem::path& out);

}  // namespace internal

}  // namespace brimo_stack::local_runtime
