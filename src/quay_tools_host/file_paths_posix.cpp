// Path preparation on POSIX: '/' is the only separator and there is no long-path form.
#include "quay_tools_host/file_paths.h"

namespace brimo_stack::quay_tools_host::internal {

std::filesystem::path PrepareWidePath(std::string_view utf8_path) {
  // File names are bytes here: no conversion, and '\' is an ordinary byte of a name.
  std::string collapsed;
  collapsed.reserve(utf8_path.size());
  for (const char c : utf8_path) {
    if (c == '/' && !collapsed.empty() && collapsed.back() == '/') {
      continue;
    }
    collapsed.push_back(c);
  }
  return NormalizeFilePath(std::filesystem::path(std::move(collapsed)), /*force_long=*/false);
}

std::filesystem::path NormalizeFilePath(const std::filesystem::path& path, bool /*force_long*/) {
  std::string text = path.lexically_normal().native();
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
  return std::filesystem::path(std::move(text));
}

CommandResult ToExtendedLengthPath(std::string_view path_text, std::string& out) {
  if (path_text.empty() || path_text.front() != '/') {
    return CommandResult::Failure(kCategoryRefused, 1, "path must be absolute");
  }
  out.assign(path_text);
  return CommandResult::Success();
}

bool IsFullyQualifiedPath(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.front() == '/';
}

}  // namespace brimo_stack::quay_tools_host::internal
