// Facts about the running process that the portable layers need.
#pragma once

#include <cstdint>

namespace brimo_stack::local_runtime {

[[nodiscard]] uint64_t CurrentProcessId();

// Makes a closed pipe a write failure instead of a death, where the platform has such a signal.
void IgnoreBrokenPipeSignal();

}  // namespace brimo_stack::local_runtime
