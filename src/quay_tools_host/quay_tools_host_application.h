// The host's run: logger, channel, service, endpoint, loop.
#pragma once

#include <cstdint>

#include "brimo_stack/local_runtime/host_launch_config.h"

namespace brimo_stack::quay_tools_host {

class QuayToolsHostApplication {
 public:
  // The process exit code.
  [[nodiscard]] int32_t Run(local_runtime::HostLogConfig log_config, bool crash_handler_ready);
};

}  // namespace brimo_stack::quay_tools_host
