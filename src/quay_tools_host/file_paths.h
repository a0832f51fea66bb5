// Path preparation and resolution for request paths.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

// A request's UTF-8 path as a platform path: separators collapsed, then NormalizeFilePath.
[[nodiscard]] std::filesystem::path PrepareWidePath(std::string_view utf8_path);

// Lexical normal form without trailing separators (a root keeps its own); where the platform
// has long-path forms, the long form when asked or needed.
[[nodiscard]] std::filesystem::path NormalizeFilePath(const std::filesystem::path& path, bool force_long);

// The platform's long-path form of an absolute path; "path must be absolute" for a relative one.
[[nodiscard]] CommandResult ToExtendedLengthPath(std::string_view path_text, std::string& out);

// True when the path begins at a root (a root name followed by a separator on Win32, "/" here).
[[nodiscard]] bool IsFullyQualifiedPath(const std::filesystem::path& path);

}  // namespace brimo_stack::quay_tools_host::internal
