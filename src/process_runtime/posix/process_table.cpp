#include "process_runtime/posix/process_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::process_runtime {
namespace {

constexpr std::string_view kStage = "query shell process job";

// Calls `visit` with each numeric entry of /proc.
CommandResult ForEachProcess(const std::function<void(pid_t)>& visit) {
  std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  if (!proc) return MakeSystemCommandError(kStage, errno);
  while (const dirent* entry = ::readdir(proc.get())) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (pid > 0 && *end == '\0') visit(static_cast<pid_t>(pid));
  }
  return CommandResult::Success();
}

// State and process group from /proc/<pid>/stat; false for a process that is gone.
bool ReadStat(pid_t pid, char& state, pid_t& group) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return false;
  char text[512];
  const ssize_t n = RetryOnEintr([&] { return ::read(fd.get(), text, sizeof(text) - 1); });
  if (n <= 0) return false;
  text[n] = '\0';
  // The name may hold spaces and parentheses; the fields start after its last ')'.
  const std::string_view line(text, static_cast<size_t>(n));
  const size_t close = line.rfind(')');
  if (close == std::string_view::npos || close + 2 >= line.size()) return false;
  int parent = 0;
  int group_number = 0;
  if (std::sscanf(text + close + 2, "%c %d %d", &state, &parent, &group_number) != 3) return false;
  group = group_number;
  return true;
}

bool Alive(char state) { return state != 'Z' && state != 'X' && state != 'x'; }

}  // namespace

CommandResult ListProcessGroup(pid_t group, std::vector<uint32_t>& out) {
  out.clear();
  return ForEachProcess([&](pid_t pid) {
    char state = 0;
    pid_t member_of = 0;
    if (ReadStat(pid, state, member_of) && member_of == group && Alive(state)) {
      out.push_back(static_cast<uint32_t>(pid));
    }
  });
}

std::string ReadPidNamespaceLink(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/ns/pid";
  char target[128];
  const ssize_t n = ::readlink(path.c_str(), target, sizeof(target));
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

CommandResult ListPidNamespace(const std::string& namespace_link, pid_t leave_out, std::vector<uint32_t>& out) {
  out.clear();
  return ForEachProcess([&](pid_t pid) {
    char state = 0;
    pid_t group = 0;
    if (pid != leave_out && ReadPidNamespaceLink(pid) == namespace_link && ReadStat(pid, state, group) &&
        Alive(state)) {
      out.push_back(static_cast<uint32_t>(pid));
    }
  });
}

}  // namespace brimo_stack::process_runtime
