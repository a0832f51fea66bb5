// The processes that belong to one child, read from /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::process_runtime {

// The living members of process group `group`.
[[nodiscard]] CommandResult ListProcessGroup(pid_t group, std::vector<uint32_t>& out);

// The living processes whose PID namespace is `namespace_link` (the text of a /proc/<pid>/ns/pid
// link), except `leave_out`.
[[nodiscard]] CommandResult ListPidNamespace(const std::string& namespace_link, pid_t leave_out,
                                             std::vector<uint32_t>& out);

// The text of /proc/<pid>/ns/pid, empty when it cannot be read.
[[nodiscard]] std::string ReadPidNamespaceLink(pid_t pid);

}  // namespace brimo_stack::process_runtime
