#include "process_runtime/posix/executable_search.h"

#include <sys/stat.h>
#include <unistd.h>

namespace brimo_stack::process_runtime {

std::string ResolveExecutablePath(std::string_view executable, std::string_view search_path) {
  if (executable.empty() || executable.find('/') != std::string_view::npos) return std::string(executable);
  size_t start = 0;
  for (;;) {
    const size_t end = search_path.find(':', start);
    std::string_view directory = search_path.substr(start, end == std::string_view::npos ? end : end - start);
    std::string candidate = directory.empty() ? std::string(executable)
                                              : std::string(directory) + "/" + std::string(executable);
    struct stat info = {};
    if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
      return directory.empty() ? "./" + candidate : candidate;
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return std::string(executable);
}

}  // namespace brimo_stack::process_runtime
