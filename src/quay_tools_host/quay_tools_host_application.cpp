// The host's run: logger, channel, service, endpoint, loop.
#include "quay_tools_host/quay_tools_host_application.h"

#include "brimo_stack/local_runtime/ipc/json_line_channel.h"
#include "brimo_stack/local_runtime/logging/host_logger.h"
#include "brimo_stack/local_runtime/logging/structured_log.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/quay_tools_host_rpc_endpoint.h"

namespace brimo_stack::quay_tools_host {

int32_t QuayToolsHostApplication::Run(local_runtime::HostLogConfig log_config, bool crash_handler_ready) {
  // The log directory and file carry this name; dumps and log components say quay_tools_host.
  local_runtime::ConfigureHostLogger("marsh_console_host", log_config);
  if (!crash_handler_ready) {
    LogStructured(LogLevel::kError, "quay_tools_host.crash", "initialize self-managed crash handler failed",
                  nlohmann::json::object(), BRIMO_LOG_LOCATION());
  }
  local_runtime::ipc::JsonLineChannel channel;
  FileCommandService service;
  QuayToolsHostRpcEndpoint endpoint(&channel, &service);
  return endpoint.RunLoop();
}

}  // namespace brimo_stack::quay_tools_host
