// Path preparation and resolution for request paths.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

// A request's UTF-8 path as a platform path: separators collapsed, then NormalizeFilePath.
[[nodiscard]] std::filesystem::path PrepareWidePath(std::string_view utf8_path);

// Lexical normal form without trailing separators (a root keeps its own); where the platform
// has long-path forms, the long form when asked or needed.
[[nodiscard]] std::filesystem::path NormalizeFilePath(const std::filesystem::path& path, bool force_long);

// The platform's long-path form of an absolute path; "path must be absolute" for a relative one.
[[nodiscard]] CommandResult ToExtendedLengthPath(std::string_view path_text, std::string& out);

// The base (base_cwd, else the current directory) joined with the request path, folded by
// text: links play no part. A NUL byte is refused, since the system would cut the path there.
[[nodiscard]] CommandResult ResolveRequestPath(std::string_view base_cwd, std::string_view path,
                                               std::filesystem::path& logical);

// Replaces `path` by the real location of what it names, links followed.
[[nodiscard]] CommandResult ResolveRealPath(std::filesystem::path& path);

// The real path of a path that may not exist yet: the nearest existing ancestor resolved,
// the missing components put back; the logical path itself when no ancestor exists.
[[nodiscard]] CommandResult ResolveRealPathAllowMissing(const std::filesystem::path& logical,
                                                        std::filesystem::path& real);

// The entry check of commands that read an existing file. A missing file is a failure of
// `not_found_kind` when that is not kNone, else "FILE_NOT_FOUND: <path>".
[[nodiscard]] CommandResult RequireRegularFile(std::string_view base_cwd, std::string_view path,
                                               std::filesystem::path& real, FileMutationErrorKind not_found_kind);

// The root of a search: anything that exists; an empty path stands for ".".
[[nodiscard]] CommandResult RequireSearchRoot(std::string_view base_cwd, std::string_view path,
                                              std::filesystem::path& real);

// A path as UTF-8 text for messages and the policy; the bytes as they are on POSIX.
[[nodiscard]] std::string PathToUtf8(const std::filesystem::path& path);

// The real path of an open handle, as the kernel names it now.
[[nodiscard]] bool RealPathOfHandle(std::intptr_t handle, std::filesystem::path& out);

// True when the path begins at a root (a root name followed by a separator on Win32, "/" here).
[[nodiscard]] bool IsFullyQualifiedPath(const std::filesystem::path& path);

}  // namespace brimo_stack::quay_tools_host::internal
