// What the host reads from /proc, and the failure it gives when /proc is not mounted.
#pragma once

#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack {

// "/proc/self/fd/<fd>": the kernel's name for an open descriptor, and a path through which
// calls that take only a path (lgetxattr, readlink) reach what the descriptor holds.
[[nodiscard]] std::string DescriptorProcPath(int fd);

// The name the kernel holds now for what `fd` has open, an absolute path. A failure is the
// readlink error under `stage`, or the /proc failure below. A file that was unlinked is named
// "<old path> (deleted)"; callers that need a live name check the link count themselves.
[[nodiscard]] CommandResult ReadDescriptorPath(int fd, std::string_view stage, std::string& out);

// Success when /proc is mounted; otherwise category 6, ENOENT and "<stage> failed: /proc is not
// mounted", so that a failure through /proc is not mistaken for a missing file. Called after
// such a failure, so the good road pays nothing.
[[nodiscard]] CommandResult RequireProcFileSystem(std::string_view stage);

}  // namespace brimo_stack
