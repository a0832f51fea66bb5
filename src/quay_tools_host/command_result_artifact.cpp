// Moves a search result into a file below the runtime artifact root on request: the decision
// by text, and the response object that goes into the file.
#include "quay_tools_host/command_result_artifact.h"

#include <exception>

#include "brimo_stack/local_runtime/ipc/json_host_run_loop.h"
#include "brimo_stack/local_runtime/sandbox_environment_paths.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::quay_tools_host {
namespace {

constexpr std::string_view kSerializeFailedMessage = "serialize file command result artifact failed";

// `target` relative to `root` by text; false when it is not below it. Both are normal absolute
// paths; a relative target is refused outright, since it would land wherever the host runs.
bool RelativeBelowRoot(const std::filesystem::path& target, const std::filesystem::path& root,
                       std::filesystem::path& relative) {
  if (root.empty() || !IsFullyQualifiedPath(target)) {
    return false;
  }
  relative = target.lexically_relative(root);
  if (relative.empty() || relative.is_absolute()) {
    return false;
  }
  for (const std::filesystem::path& component : relative) {
    if (component == "..") {
      return false;
    }
  }
  return true;
}

}  // namespace

namespace internal {

CommandResult ArtifactFailure(std::string_view message) {
  return CommandResult::Failure(kCategoryInternal, 0, std::string(message));
}

}  // namespace internal

CommandResult WriteResultArtifact(CommandResult result, std::string_view result_file, std::string_view install_dir) {
  if (!result.ok || result_file.empty()) {
    return result;
  }
  // The system would cut the path at a NUL: "..\0x" passes as a name here and acts as "..".
  if (AnyPathHasNul({result_file})) {
    return internal::ArtifactFailure(kNulInPathMessage);
  }
  const std::filesystem::path root =
      NormalizeFilePath(local_runtime::BrimoStackRuntimeArtifactRoot(install_dir), /*force_long=*/false);
  const std::filesystem::path target = NormalizeFilePath(PrepareWidePath(result_file), /*force_long=*/false);
  std::filesystem::path relative;
  if (!RelativeBelowRoot(target, root, relative)) {
    return internal::ArtifactFailure(internal::kArtifactEscapesMessage);
  }
  if (relative == ".") {
    return internal::ArtifactFailure(internal::kArtifactExistsMessage);
  }
  return internal::CreateResultArtifact(root, relative, [&result](std::string& bytes) {
    try {
      // A file name need not be UTF-8: the file carries it as the channel would, with U+FFFD.
      bytes = local_runtime::BuildResponseEnvelope(result).dump(-1, ' ', /*ensure_ascii=*/false,
                                                                  nlohmann::json::error_handler_t::replace);
    } catch (const std::exception&) {
      return internal::ArtifactFailure(kSerializeFailedMessage);
    }
    return CommandResult::Success();
  });
}

}  // namespace brimo_stack::quay_tools_host
