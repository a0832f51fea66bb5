// Process entry of the host.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "brimo_stack/local_runtime/crash/self_managed_crash_handler.h"
#include "brimo_stack/local_runtime/host_launch_config.h"
#include "brimo_stack/local_runtime/process_info.h"
#include "quay_tools_host/quay_tools_host_application.h"

int main(int argc, char** argv) {
  using namespace brimo_stack;
  // Standard output carries the frames: the logger that stands before the configured one may
  // only ever write to standard error.
  spdlog::set_default_logger(spdlog::stderr_logger_st("default"));
  local_runtime::IgnoreBrokenPipeSignal();

  local_runtime::HostLaunchConfig config;
  if (!local_runtime::ParseHostCommandLine(argc, argv, config)) {
    return 64;
  }
  local_runtime::SelfManagedCrashHandler crash_handler;
  const bool crash_handler_ready = crash_handler.Initialize(config.crash, "quay_tools_host");
  quay_tools_host::QuayToolsHostApplication application;
  return application.Run(std::move(config.log), crash_handler_ready);
}
