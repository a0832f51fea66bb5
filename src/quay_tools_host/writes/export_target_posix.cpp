// The export destination's platform layer on POSIX: case-sensitive keys and lstat for links.
#include "quay_tools_host/writes/export_target.h"

#include <sys/stat.h>

#include "brimo_stack_common/path_text.h"

namespace brimo_stack::quay_tools_host::internal {

std::string PathContainmentKey(const std::filesystem::path& path) {
  // Names differ by case here: folding would let "/tmp/QZ/to" pass as the root "/tmp/qz/to".
  std::string key = path.native();
  StripTrailingSeparators(key);
  return key;
}

std::string FileUrlPathText(const std::filesystem::path& path) {
  // A '\' is a byte of a name here, not a separator: it is encoded, never turned into '/'.
  return std::filesystem::absolute(path).lexically_normal().native();
}

bool IsReparsePoint(const std::filesystem::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

}  // namespace brimo_stack::quay_tools_host::internal
