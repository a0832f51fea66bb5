// Writes a dump of the whole process at a fatal fault, in crash mode 2.
#include "brimo_stack/local_runtime/self_managed_crash_handler.h"

namespace brimo_stack::local_runtime {

// The dump writer is not in this build yet: mode 2 reports that no handler stands, which the
// run logs and survives.
bool SelfManagedCrashHandler::Initialize(const HostCrashConfig& config, std::string_view) { return config.mode != 2; }

}  // namespace brimo_stack::local_runtime
