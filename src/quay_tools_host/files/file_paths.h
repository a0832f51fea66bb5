// Path preparation and resolution for request paths.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"
#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

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

}  // namespace brimo_stack::quay_tools_host::internal
