// The program's arguments on Linux, read back from the kernel's copy of argv.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "brimo_stack/local_runtime/host_launch_config.h"

namespace brimo_stack::local_runtime {

std::vector<std::string> ReadProgramArguments() {
  const int fd = ::open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return {};
  }
  std::string raw;
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    raw.append(buffer, static_cast<size_t>(count));
  }
  ::close(fd);
  std::vector<std::string> arguments;
  size_t start = 0;
  while (start < raw.size()) {
    const size_t end = raw.find('\0', start);
    if (end == std::string::npos) {
      arguments.push_back(raw.substr(start));
      break;
    }
    arguments.push_back(raw.substr(start, end - start));
    start = end + 1;
  }
  return arguments;
}

}  // namespace brimo_stack::local_runtime
