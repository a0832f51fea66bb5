// The destination of file_export, decided by text first and then by the disk.
#include "quay_tools_host/writes/export_target.h"

#include <system_error>
#include <vector>

#include "brimo_stack/local_runtime/sandbox_environment_paths.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr FileErrorKind kKind = FileErrorKind::kInvalidExportPath;

CommandResult Refused(std::string_view text, const std::filesystem::path& path) {
  return MakeFileError(kKind, kCategoryRefused, 1, std::string(text) + PathToUtf8(path));
}

bool IsUnreservedUrlByte(unsigned char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
         byte == '-' || byte == '.' || byte == '/' || byte == ':' || byte == '_' || byte == '~';
}

}  // namespace

bool IsPathInsideRoot(const std::filesystem::path& path, const std::filesystem::path& root) {
  const std::string path_key = PathContainmentKey(path);
  const std::string root_key = PathContainmentKey(root);
  if (path_key.empty() || root_key.empty()) {
    return false;
  }
  return IsPathTextAtOrBelow(path_key, root_key);
}

std::string MakeFileUrl(const std::filesystem::path& path) {
  static constexpr char kHexDigits[] = "0123456789ABCDEF";
  const std::string text = FileUrlPathText(path);
  std::string url = !text.empty() && text.front() == '/' ? "file://" : "file:///";
  url.reserve(url.size() + text.size() * 3);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsUnreservedUrlByte(byte)) {
      url.push_back(c);
    } else {
      url.push_back('%');
      url.push_back(kHexDigits[byte >> 4]);
      url.push_back(kHexDigits[byte & 0x0F]);
    }
  }
  return url;
}

CommandResult ResolveExportRoot(std::string_view install_dir, std::filesystem::path& root) {
  CommandResult resolved = local_runtime::ResolveToolOutputsRoot(root, install_dir);
  if (!resolved.ok) {
    return resolved;
  }
  root = NormalizeFilePath(root, /*force_long=*/false);
  if (root.empty()) {
    return MakeFileError(kKind, kCategoryInternal, 0, "trusted export root resolved to an empty path");
  }
  return CommandResult::Success();
}

CommandResult ResolveExportTarget(std::string_view export_path, std::string_view install_dir,
                                  std::filesystem::path& target, std::filesystem::path& export_directory) {
  target.clear();
  export_directory.clear();
  if (export_path.empty()) {
    return MakeFileError(kKind, kCategoryRefused, 1, "export_path is empty");
  }
  // The system would cut the path at a NUL and act on a different one than was checked.
  if (export_path.find('\0') != std::string_view::npos) {
    return MakeFileError(kKind, kCategoryRefused, 1, "export_path contains a NUL character");
  }
  const std::filesystem::path prepared = PrepareWidePath(export_path);
  // There is no base_cwd for this path: a relative one would land wherever the host runs.
  if (!IsFullyQualifiedPath(prepared)) {
    return MakeFileError(kKind, kCategoryRefused, 1, "export_path must be an absolute path");
  }
  target = NormalizeFilePath(prepared.lexically_normal(), /*force_long=*/false);
  export_directory = target.parent_path();

  std::filesystem::path root;
  CommandResult resolved = ResolveExportRoot(install_dir, root);
  if (!resolved.ok) {
    return resolved;
  }
  // The root is a valid export directory; the root as the target is not.
  if (!target.has_filename() || !IsPathInsideRoot(export_directory, root)) {
    return Refused("export_path is outside trusted export root: ", target);
  }

  CommandResult components =
      CheckWritePathComponents(export_directory, root, kExportPathWords, LastPathElement::kDirectory);
  if (!components.ok) {
    return components;
  }
  // The root and what lies below it are the host's to create and to check. The runtime
  // artifact root above it belongs to the parent, which hands out paths under it: it is neither
  // created nor looked at, and without it the root can't be created either.
  CommandResult ensured = EnsureParentDirectories(export_directory, root, kExportPathWords);
  if (!ensured.ok) {
    return ensured;
  }
  if (IsReparsePoint(export_directory)) {
    return Refused("export_path parent is a reparse point: ", target);
  }
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(export_directory, error);
  if (error) {
    return MakeFileErrorFromErrorCode(kKind, "inspect export path parent", error);
  }
  if (!std::filesystem::is_directory(status)) {
    return Refused("export_path parent is not a directory: ", target);
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
