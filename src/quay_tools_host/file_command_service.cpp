// The service's state and internal:initialize.
#include "quay_tools_host/file_command_service.h"

namespace brimo_stack::quay_tools_host {

FileCommandService::FileCommandService() : ripgrep_path_cache_(std::make_unique<internal::RipgrepPathCache>()) {}

CommandResult FileCommandService::Initialize(const InternalInitializeRequest& request) {
  CommandResult configured = ripgrep_path_cache_->Configure(request.rg_executable);
  if (!configured.ok) {
    return configured;
  }
  sbox_log_dir_ = request.sbox_log_dir;
  sbox_dump_dir_ = request.sbox_dump_dir;
  install_dir_ = request.install_dir;
  return CommandResult::Success();
}

CommandResult UnsupportedMethodResult() {
  return CommandResult::Failure(kCategoryRefused, 2, "unsupported quay tools host method");
}

}  // namespace brimo_stack::quay_tools_host
