// Writes a dump of the whole process at a fatal fault, in crash mode 2.
#pragma once

#include <string_view>

#include "brimo_stack/local_runtime/host_launch_config.h"

namespace brimo_stack::local_runtime {

inline constexpr std::string_view kDumpFileEnvironmentVariable = "BRIMO_STACK_INTERNAL_DUMP_FILE";

class SelfManagedCrashHandler {
 public:
  // False when a handler was asked for and isn't installed; modes 0 and 1 install nothing.
  [[nodiscard]] bool Initialize(const HostCrashConfig& config, std::string_view host);
};

}  // namespace brimo_stack::local_runtime
