// Commands that this build does not carry yet: their params are parsed, then they answer as
// an unknown method would. Each definition leaves this file when its command arrives.
#include "quay_tools_host/file_command_service.h"

namespace brimo_stack::quay_tools_host {

CommandResult FileCommandService::Glob(const FileGlobRequest&) { return UnsupportedMethodResult(); }

}  // namespace brimo_stack::quay_tools_host
