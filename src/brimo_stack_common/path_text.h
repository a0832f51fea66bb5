// Path text rules shared by every layer: how a UTF-8 request text becomes a platform path, the
// normal form without trailing separators, and containment of one path in another by text.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack {

// A UTF-8 path text as a platform path: separators collapsed, then NormalizeFilePath. No disk
// access. On POSIX the bytes stay as given, valid UTF-8 or not, and '\' is a byte of a name.
[[nodiscard]] std::filesystem::path PrepareWidePath(std::string_view utf8_path);

// Lexical normal form without trailing separators (a root keeps its own); where the platform
// has long-path forms, the long form when `force_long` asks for it or the length needs it.
// POSIX has no such form, so `force_long` changes nothing there; the Win32 build needs it.
[[nodiscard]] std::filesystem::path NormalizeFilePath(const std::filesystem::path& path, bool force_long);

// Lexical normal form without trailing separators; a root keeps its own.
[[nodiscard]] std::filesystem::path NormalizeWithoutTrailingSeparator(const std::filesystem::path& path);

// The long-path form of a long absolute path where the platform has one (`force` for any
// length); POSIX takes any path up to PATH_MAX as it is, so there it is the path itself.
[[nodiscard]] std::filesystem::path PrepareWin32PathForFSAccess(const std::filesystem::path& path, bool force);

// The platform's long-path form of an absolute path text; "path must be absolute" (category 7,
// code 1) for a relative one. POSIX gives an absolute text back unchanged.
[[nodiscard]] CommandResult ToExtendedLengthPath(std::string_view path_text, std::string& out);

// The text without the platform's long-path prefix ("\\?\UNC\" becomes "\\"); POSIX has no
// such prefix, so the text comes back as it is.
[[nodiscard]] std::string WithoutLongPathPrefix(std::string_view path_text);

// The longest path text the system takes in one call (PATH_MAX less its NUL here); a longer one
// fails with the system's own error, so a text beyond it names nothing that can be opened.
[[nodiscard]] size_t LongestPathText();

// True when the path begins at a root: a root name followed by a separator on Win32, "/" here.
[[nodiscard]] bool IsFullyQualifiedPath(const std::filesystem::path& path);

// The path whose native text is this UTF-8 text, and back: the bytes as they are on POSIX.
[[nodiscard]] std::filesystem::path PathFromUtf8(std::string_view text);
[[nodiscard]] std::string PathToUtf8(const std::filesystem::path& path);

[[nodiscard]] bool IsPathSeparator(char c);

// Removes separators at the end of a path text, never the one of a bare root.
void StripTrailingSeparators(std::string& text);

// True when one of the texts holds a NUL byte: the system would cut that path there and act on
// another one than was checked. Every refusal of such a text says kNulInPathMessage.
[[nodiscard]] bool AnyPathHasNul(std::initializer_list<std::string_view> paths);
inline constexpr std::string_view kNulInPathMessage = "path contains a NUL character";

// `path` equals `root` or lies below it at a separator boundary, by text alone: both must be
// in the same normal form. "/tmp/qz/tool" is not below "/tmp/qz/to".
[[nodiscard]] bool IsPathTextAtOrBelow(std::string_view path, std::string_view root);

}  // namespace brimo_stack
