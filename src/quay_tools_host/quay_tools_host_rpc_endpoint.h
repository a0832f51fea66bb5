// Binds the run loop to the file commands: method table and the common handler pattern.
#pragma once

#include <cstdint>

#include "brimo_stack/local_runtime/ipc/json_host_run_loop.h"
#include "brimo_stack/local_runtime/ipc/json_line_channel.h"
#include "quay_tools_host/file_command_service.h"

namespace brimo_stack::quay_tools_host {

class QuayToolsHostRpcEndpoint {
 public:
  // Owns neither; both must outlive RunLoop.
  QuayToolsHostRpcEndpoint(local_runtime::ipc::IJsonLineChannel* channel, FileCommandService* service)
      : channel_(channel), service_(service) {}

  [[nodiscard]] int32_t RunLoop();
  [[nodiscard]] local_runtime::JsonHostDispatchResult Dispatch(local_runtime::JsonHostRequest& request);

 private:
  local_runtime::ipc::IJsonLineChannel* channel_;
  FileCommandService* service_;
};

}  // namespace brimo_stack::quay_tools_host
