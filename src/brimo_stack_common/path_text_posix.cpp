// Path text on POSIX: '/' is the only separator, names are bytes, and there is no long form.
#include "brimo_stack_common/path_text.h"

#include <climits>

namespace brimo_stack {

std::filesystem::path PrepareWidePath(std::string_view utf8_path) {
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

std::filesystem::path PrepareWin32PathForFSAccess(const std::filesystem::path& path, bool /*force*/) {
  return path;
}

CommandResult ToExtendedLengthPath(std::string_view path_text, std::string& out) {
  if (path_text.empty() || path_text.front() != '/') {
    return CommandResult::Failure(kCategoryRefused, 1, "path must be absolute");
  }
  out.assign(path_text);
  return CommandResult::Success();
}

std::string WithoutLongPathPrefix(std::string_view path_text) { return std::string(path_text); }

size_t LongestPathText() { return PATH_MAX - 1; }

bool IsFullyQualifiedPath(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.front() == '/';
}

std::filesystem::path PathFromUtf8(std::string_view text) { return std::filesystem::path(std::string(text)); }

bool IsPathSeparator(char c) { return c == '/'; }

void StripTrailingSeparators(std::string& text) {
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
}

}  // namespace brimo_stack
