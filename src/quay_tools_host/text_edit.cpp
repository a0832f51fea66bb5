// The exact-bytes search and replace of file_edit.
#include "quay_tools_host/text_edit.h"

#include "quay_tools_host/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {

uint64_t CountMatches(std::string_view text, std::string_view needle) {
  uint64_t count = 0;
  for (size_t at = text.find(needle); at != std::string_view::npos; at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

CommandResult ReplaceExactText(std::string& text, std::string_view old_text, std::string_view new_text,
                               bool replace_all, uint64_t& replacements) {
  replacements = 0;
  const uint64_t matches = CountMatches(text, old_text);
  if (matches == 0) {
    return MakeFileMutationError(FileMutationErrorKind::kOldStringNotFound, "old_content not found");
  }
  if (matches > 1 && !replace_all) {
    return MakeFileMutationError(FileMutationErrorKind::kOldStringNotUnique, "old_content appears more than once");
  }
  const uint64_t count = replace_all ? matches : 1;
  if (new_text.size() > old_text.size()) {
    // Whole numbers only: count * growth could overflow where this division cannot.
    const uint64_t growth = new_text.size() - old_text.size();
    const uint64_t room = text.size() >= kEditableFileLimit ? 0 : kEditableFileLimit - text.size();
    if (count > room / growth) {
      return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0, "edited file exceeds 67108864 bytes");
    }
  }
  if (!replace_all) {
    text.replace(text.find(old_text), old_text.size(), new_text);
  } else {
    std::string edited;
    edited.reserve(text.size() - count * old_text.size() + count * new_text.size());
    size_t copied = 0;
    for (size_t at = text.find(old_text); at != std::string::npos; at = text.find(old_text, at + old_text.size())) {
      edited.append(text, copied, at - copied);
      edited.append(new_text);
      copied = at + old_text.size();
    }
    edited.append(text, copied, std::string::npos);
    text = std::move(edited);
  }
  replacements = count;
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
