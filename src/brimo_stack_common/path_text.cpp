// The portable path text rules; the platform's separators and long forms are in its own file.
#include "brimo_stack_common/path_text.h"

namespace brimo_stack {

std::filesystem::path NormalizeFilePath(const std::filesystem::path& path, bool force_long) {
  return PrepareWin32PathForFSAccess(NormalizeWithoutTrailingSeparator(path), force_long);
}

std::filesystem::path NormalizeWithoutTrailingSeparator(const std::filesystem::path& path) {
  std::filesystem::path::string_type text = path.lexically_normal().native();
  StripTrailingSeparators(text);
  return std::filesystem::path(std::move(text));
}

std::string PathToUtf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

bool AnyPathHasNul(std::initializer_list<std::string_view> paths) {
  for (const std::string_view path : paths) {
    if (path.find('\0') != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

bool IsPathTextAtOrBelow(std::string_view path, std::string_view root) {
  if (path == root) {
    return true;
  }
  if (root.empty() || root.size() >= path.size() || !path.starts_with(root)) {
    return false;
  }
  // A root that ends in its separator ("/" itself) is followed by a name directly.
  return IsPathSeparator(root.back()) || IsPathSeparator(path[root.size()]);
}

}  // namespace brimo_stack
