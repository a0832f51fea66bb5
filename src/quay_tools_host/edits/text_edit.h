// The exact-bytes search and replace of file_edit, with its size rule.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr uint64_t kEditableFileLimit = 67108864;

// Position of the first match of a non-empty `needle` that starts at or after `from`, or npos.
[[nodiscard]] size_t FindExactText(std::string_view text, std::string_view needle, size_t from);

// Non-overlapping matches of `needle` from the start of `text`.
[[nodiscard]] uint64_t CountMatches(std::string_view text, std::string_view needle);

// Replaces the first match, or every match with `replace_all`, of a non-empty `old_text` in
// `text`. Fails with the not-found, not-unique and too-large errors of the command, before
// `text` is touched. A replacement that doesn't grow the text works in place.
[[nodiscard]] CommandResult ReplaceExactText(std::string& text, std::string_view old_text, std::string_view new_text,
                                             bool replace_all, uint64_t& replacements);

}  // namespace brimo_stack::quay_tools_host::internal
