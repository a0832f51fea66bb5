// Starts one child program with prepared descriptors, on a thread that outlives every request,
// below a PID namespace of its own where the machine allows one.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "brimo_stack_common/posix/scoped_fd.h"

namespace brimo_stack::process_runtime {

// How far a kill of the child reaches.
enum class Containment {
  // The child's process group: a descendant that leaves it survives.
  kProcessGroup,
  // A PID namespace below a tiny init: everything the child starts ends with it.
  kPidNamespace,
  // The same inside a user namespace of its own, for a host without privileges.
  kUserAndPidNamespace,
};

struct ChildLaunch {
  std::string path;  // resolved, used as it is
  std::vector<std::string> argv;
  std::vector<std::string> envp;
  std::string cwd;  // empty keeps the host's
  int stdio[3] = {-1, -1, -1};
  // A new session with stdio[0] as its controlling terminal, instead of a process group.
  bool terminal = false;
};

struct LaunchedChild {
  pid_t pid = -1;
  ScopedFd pidfd;
  Containment containment = Containment::kProcessGroup;
};

// Starts the child and returns once it runs the program, or fails with "create shell process"
// and the errno of the step that failed, leaving no child behind.
[[nodiscard]] CommandResult LaunchChild(const ChildLaunch& launch, LaunchedChild& out);

// The containment the next launches use: what this machine allows, unless a test or benchmark
// asked for a weaker one.
[[nodiscard]] Containment CurrentContainment();
void OverrideContainment(std::optional<Containment> containment);

}  // namespace brimo_stack::process_runtime
