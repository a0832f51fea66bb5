// The child's environment on POSIX: `environ`, the short list, byte order of names, and what
// stat says of a working directory.
#include "brimo_stack/local_runtime/child_environment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>


extern char** environ;

namespace brimo_stack::local_runtime {
bool EnvironmentNameLess::operator()(const std::string& left, const std::string& right) const { return left < right; }

namespace internal {

CommandResult InspectPathKind(const std::string& path, std::string_view stage, PathKind& kind) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR) {
      kind = PathKind::kMissing;
      return CommandResult::Success();
    }
    return MakeSystemCommandError(stage, error);
  }
  kind = S_ISDIR(info.st_mode) ? PathKind::kDirectory : PathKind::kOther;
  return CommandResult::Success();
}

CommandResult ReadInheritedEnvironment(std::vector<std::pair<std::string, std::string>>& out) {
  out.clear();
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    // An entry without '=' names no variable; an empty name would make an entry the child misreads.
    if (equals == nullptr || equals == *entry) continue;
    out.emplace_back(std::string(*entry, static_cast<size_t>(equals - *entry)), std::string(equals + 1));
  }
  return CommandResult::Success();
}

const std::vector<std::string_view>& ShortEnvironmentNames() {
  static const std::vector<std::string_view> kNames{"PATH", "HOME",     "TMPDIR", "LANG",   "LC_ALL",
                                                    "LC_CTYPE", "TZ", "USER",   "LOGNAME"};
  return kNames;
}

}  // namespace internal

}  // namespace brimo_stack::local_runtime
