// The runtime roots: the profile case beside an install directory, else the system temp root.
#include "brimo_stack/local_runtime/sandbox_environment_paths.h"

#include <system_error>

#include <spdlog/spdlog.h>

#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

constexpr std::string_view kProfileDirectoryName = "sandbox_envs_dir";
constexpr std::string_view kProfileRootName = "brimo_stack";
constexpr std::string_view kTempRootName = "qz";
constexpr std::string_view kToolOutputsName = "to";
// What the type test reports when the status call itself had no error.
constexpr int kNotADirectory = static_cast<int>(std::errc::not_a_directory);

CommandResult Refused(std::string message) { return CommandResult::Failure(kCategoryRefused, 1, std::move(message)); }

CommandResult Unsafe(std::string message) { return CommandResult::Failure(kCategoryInternal, 0, std::move(message)); }

bool HasParentTraversal(const std::filesystem::path& path) {
  for (const auto& component : path) {
    if (component == "..") {
      return true;
    }
  }
  return false;
}

std::filesystem::path NormalizeAndPrepare(const std::filesystem::path& path) {
  return PrepareWin32PathForFSAccess(NormalizeWithoutTrailingSeparator(path), /*force=*/false);
}

}  // namespace

std::filesystem::path BrimoStackRuntimeArtifactRoot(std::string_view install_dir) {
  std::filesystem::path root;
  const CommandResult resolved = ResolveRuntimeArtifactRoot(root, install_dir);
  if (!resolved.ok) {
    SPDLOG_ERROR("resolve Brimo Stack runtime artifact root failed, category={}, code={}", resolved.error->category,
                 resolved.error->code);
    return {};
  }
  return root;
}

CommandResult ResolveRuntimeArtifactRoot(std::filesystem::path& out, std::string_view install_dir) {
  out.clear();
  const std::filesystem::path install = PathFromUtf8(install_dir);
  const std::filesystem::path normalized = NormalizeWithoutTrailingSeparator(install);

  if (!normalized.empty() && normalized.filename() == kProfileDirectoryName) {
    // The test runs on the text as given: "/x/../sandbox_envs_dir" is refused although
    // normalisation would fold it.
    if (!install.is_absolute() || HasParentTraversal(install)) {
      return Refused("Profile install_dir must be an absolute path without parent traversal");
    }
    const std::filesystem::path parent = NormalizeAndPrepare(normalized).parent_path();
    if (parent.empty() || parent == parent.root_path()) {
      return Refused("Profile directory must not be a filesystem root");
    }
    out = parent / kProfileRootName;
    return CommandResult::Success();
  }

  std::filesystem::path temp_root;
  CommandResult temp = ResolveSystemTempRootForSandboxFiles(temp_root);
  if (!temp.ok) {
    return temp;
  }
  std::filesystem::path root = NormalizeAndPrepare(temp_root / kTempRootName);
  if (root.empty() || !root.is_absolute() || root == root.root_path()) {
    return Unsafe("Brimo Stack runtime artifact root resolved to an unsafe path");
  }
  out = std::move(root);
  return CommandResult::Success();
}

CommandResult ResolveToolOutputsRoot(std::filesystem::path& out, std::string_view install_dir) {
  CommandResult resolved = ResolveRuntimeArtifactRoot(out, install_dir);
  if (!resolved.ok) {
    return resolved;
  }
  out /= kToolOutputsName;
  return CommandResult::Success();
}

CommandResult ResolveSystemTempRootForSandboxFiles(std::filesystem::path& out) {
  out.clear();
  std::filesystem::path queried;
  CommandResult query = internal::QuerySystemTempDirectory(queried);
  if (!query.ok) {
    return query;
  }
  const std::filesystem::path path = NormalizeAndPrepare(queried);

  std::string_view reason;
  if (path.empty()) {
    reason = "empty";
  } else if (!path.is_absolute()) {
    reason = "not_absolute";
  } else if (path == path.root_path()) {
    reason = "root_directory";
  }
  if (!reason.empty()) {
    SPDLOG_ERROR("resolve system temp directory failed, stage=validate_path, reason={}, path_length={}", reason,
                 path.native().size());
    return Unsafe("system temporary directory resolved to an unsafe path");
  }

  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error || !std::filesystem::is_directory(status)) {
    const int code = error ? error.value() : kNotADirectory;
    SPDLOG_ERROR("resolve system temp directory failed, stage=validate_directory, error_code={}", code);
    return MakeSystemCommandError("validate system temporary directory", code);
  }
  out = path;
  return CommandResult::Success();
}

}  // namespace brimo_stack::local_runtime
