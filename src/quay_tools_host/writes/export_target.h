// The destination of file_export: resolution under the trusted export root and its checks.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

// The absolute, normalised `export_path` and its directory, both inside the tools output root
// of `install_dir`, with every existing component from the root down checked and the missing
// directories created; nothing above the root is looked at.
[[nodiscard]] CommandResult ResolveExportTarget(std::string_view export_path, std::string_view install_dir,
                                                std::filesystem::path& target,
                                                std::filesystem::path& export_directory);

// The tools output root of `install_dir`, normalised: every export lands below it.
[[nodiscard]] CommandResult ResolveExportRoot(std::string_view install_dir, std::filesystem::path& root);

// True when `path` is `root` or lies below it, by text. Case counts wherever the file system's
// names are case-sensitive.
[[nodiscard]] bool IsPathInsideRoot(const std::filesystem::path& path, const std::filesystem::path& root);

// "file://" and the absolute path, percent-encoded byte by byte.
[[nodiscard]] std::string MakeFileUrl(const std::filesystem::path& path);

// The platform layer under the functions above.

// The text that IsPathInsideRoot compares: '/' as separator, no trailing separator unless the
// path is a root, letter case folded only where names ignore it.
[[nodiscard]] std::string PathContainmentKey(const std::filesystem::path& path);

// The absolute path as URL path text before encoding, '/' as separator. Throws the path
// library's error when the current directory can't be read.
[[nodiscard]] std::string FileUrlPathText(const std::filesystem::path& path);

// True when the entry itself is a link (a reparse point on Win32); false when it can't be read.
[[nodiscard]] bool IsReparsePoint(const std::filesystem::path& path);

}  // namespace brimo_stack::quay_tools_host::internal
