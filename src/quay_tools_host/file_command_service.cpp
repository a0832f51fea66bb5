// The service's state and internal:initialize.
#include "quay_tools_host/file_command_service.h"

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host {

FileCommandService::FileCommandService() : ripgrep_path_cache_(std::make_unique<internal::RipgrepPathCache>()) {}

CommandResult FileCommandService::Initialize(const InternalInitializeRequest& request) {
  // Refused before anything changes: each of them reaches the system, which would cut it there.
  if (AnyPathHasNul({request.rg_executable, request.sbox_log_dir, request.sbox_dump_dir, request.install_dir})) {
    return internal::MakeFileError(internal::FileErrorKind::kInvalidFilePath, kCategoryRefused, 1, kNulInPathMessage);
  }
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
