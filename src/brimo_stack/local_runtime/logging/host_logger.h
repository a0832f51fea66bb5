// The host's logger: a rotating file as the process-wide default, or a silent one.
#pragma once

#include <string>
#include <string_view>

#include "brimo_stack/local_runtime/host_launch_config.h"

namespace brimo_stack::local_runtime {

// Installs the rotating file logger below `<log_dir>/<host>` as the process default, or the
// silent one when the configuration asks for none. Never throws: a failure logs to standard
// error and leaves the silent logger.
void ConfigureHostLogger(std::string_view host, const HostLogConfig& config);
void DisableHostLogger();
// "<host>_<YYYYMMDDHHMMSS>_<pid>.log" in local time.
[[nodiscard]] std::string MakeHostLogFileName(std::string_view host);

}  // namespace brimo_stack::local_runtime
