// Moves a search result into a file below the runtime artifact root on request.
#include "quay_tools_host/command_result_artifact.h"

namespace brimo_stack::quay_tools_host {

// No search command is served yet, so nothing can succeed into an artifact: a result passes
// through as it is until the searches and the runtime roots arrive.
CommandResult WriteResultArtifact(CommandResult result, std::string_view, std::string_view) { return result; }

}  // namespace brimo_stack::quay_tools_host
