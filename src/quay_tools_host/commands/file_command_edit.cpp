// file_edit: replaces an exact piece of a UTF-8 file, once or everywhere, by an atomic rewrite.
#include <filesystem>

#include "quay_tools_host/commands/editable_file.h"
#include "quay_tools_host/edits/text_edit.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/read_line_numbers.h"

namespace brimo_stack::quay_tools_host {

CommandResult FileCommandService::Edit(const FileEditRequest& request) {
  if (request.old_content.empty()) {
    return CommandResult::Failure(kCategoryRefused, 1, "INVALID_OLD_STRING: old_content is empty");
  }
  std::filesystem::path real;
  std::string text;
  CommandResult loaded = internal::LoadEditableFile(request.base_cwd, request.path, request.policy,
                                                    internal::kEditableFileLimit, real, text);
  if (!loaded.ok) {
    return loaded;
  }
  // Each side is recognised on its own: a numbered new_content loses its numbers either way.
  std::string old_stripped;
  std::string new_stripped;
  const std::string_view old_text = internal::TryStripReadLineNumbers(request.old_content, old_stripped)
                                        ? old_stripped
                                        : std::string_view(request.old_content);
  const std::string_view new_text = internal::TryStripReadLineNumbers(request.new_content, new_stripped)
                                        ? new_stripped
                                        : std::string_view(request.new_content);
  if (old_text.empty()) {
    return CommandResult::Failure(kCategoryRefused, 1,
                                  "INVALID_OLD_STRING: old_content is empty after removing read line numbers");
  }
  uint64_t replacements = 0;
  CommandResult replaced = internal::ReplaceExactText(text, old_text, new_text, request.replace_all, replacements);
  if (!replaced.ok) {
    return replaced;
  }
  CommandResult written = internal::RewriteEditableFile(real, text);
  if (!written.ok) {
    return written;
  }
  return MakeJsonOutputResult(nlohmann::json{{"replacements", replacements}});
}

}  // namespace brimo_stack::quay_tools_host
