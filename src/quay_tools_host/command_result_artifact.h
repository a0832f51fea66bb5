// Moves a search result into a file below the runtime artifact root on request.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host {

// A failure or an empty `result_file` passes through unchanged. Otherwise the response object
// of `result` is written to `result_file`, which must lie below the runtime artifact root of
// `install_dir` in a directory that exists, and a bare success is returned. An existing file
// is never replaced, and no link below the root is followed.
[[nodiscard]] CommandResult WriteResultArtifact(CommandResult result, std::string_view result_file,
                                                std::string_view install_dir);

namespace internal {

inline constexpr std::string_view kArtifactEscapesMessage =
    "file command result artifact escapes the runtime artifact root";
inline constexpr std::string_view kArtifactExistsMessage = "file command result artifact already exists";

// A refusal of this command's own kind: category 3, code 0.
[[nodiscard]] CommandResult ArtifactFailure(std::string_view message);

// The platform layer under the function above.

// Creates `relative` (normal, below the root, not ".") in the directory `root` names. Links
// in `root` itself are followed; one below it is an escape. `serialize` runs once the directory
// is open and the name is free and gives the bytes; its failure is returned and leaves nothing
// behind. The bytes go to a temporary sibling, renamed into place only where no entry exists.
[[nodiscard]] CommandResult CreateResultArtifact(const std::filesystem::path& root,
                                                 const std::filesystem::path& relative,
                                                 const std::function<CommandResult(std::string&)>& serialize);

}  // namespace internal

}  // namespace brimo_stack::quay_tools_host
