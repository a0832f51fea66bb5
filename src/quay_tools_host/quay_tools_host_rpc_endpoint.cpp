// Binds the run loop to the file commands: method table and the common handler pattern.
#include "quay_tools_host/quay_tools_host_rpc_endpoint.h"

#include <string_view>

#include "quay_tools_host/command_result_artifact.h"

namespace brimo_stack::quay_tools_host {
namespace {

using local_runtime::JsonHostAction;
using local_runtime::JsonHostDispatchResult;
using local_runtime::JsonHostRequest;

constexpr std::string_view kRpcComponent = "quay_tools_host.rpc";

JsonHostDispatchResult Continue(CommandResult result) {
  return JsonHostDispatchResult{std::move(result), JsonHostAction::kContinue};
}

// Parse the params into a fresh record, then run the operation; a parse failure is the answer.
template <typename Record, typename Operation>
JsonHostDispatchResult Handle(JsonHostRequest& request, Operation operation) {
  Record record;
  CommandResult parsed = ParseRequest(std::move(request.params), record);
  if (!parsed.ok) {
    return Continue(std::move(parsed));
  }
  return Continue(operation(record));
}

}  // namespace

int32_t QuayToolsHostRpcEndpoint::RunLoop() {
  const local_runtime::JsonHostRunLoopOptions options{kRpcComponent, /*warn_on_invalid_json=*/true};
  return local_runtime::RunJsonHostLoop(*channel_, options,
                                        [this](JsonHostRequest& request) { return Dispatch(request); });
}

JsonHostDispatchResult QuayToolsHostRpcEndpoint::Dispatch(JsonHostRequest& request) {
  FileCommandService& service = *service_;
  const std::string& method = request.method;
  if (method == "ping") {
    return Continue(CommandResult::Success());
  }
  if (method == "internal:initialize") {
    return Handle<InternalInitializeRequest>(request, [&](const auto& r) { return service.Initialize(r); });
  }
  if (method == "shutdown") {
    return JsonHostDispatchResult{CommandResult::Success(), JsonHostAction::kStopSuccess};
  }
  if (method == "file_read") {
    return Handle<FileReadRequest>(request, [&](const auto& r) { return service.Read(r); });
  }
  if (method == "file_write") {
    return Handle<FileWriteRequest>(request, [&](const auto& r) { return service.Write(r); });
  }
  if (method == "file_create_temp") {
    return Handle<FileCreateTempRequest>(request, [&](const auto& r) { return service.CreateTempFile(r); });
  }
  if (method == "file_edit") {
    return Handle<FileEditRequest>(request, [&](const auto& r) { return service.Edit(r); });
  }
  if (method == "file_notebook_edit") {
    return Handle<FileNotebookEditRequest>(request, [&](const auto& r) { return service.NotebookEdit(r); });
  }
  if (method == "file_glob") {
    return Handle<FileGlobRequest>(request, [&](const auto& r) {
      return WriteResultArtifact(service.Glob(r), r.result_file, service.install_dir());
    });
  }
  if (method == "file_grep") {
    return Handle<FileGrepRequest>(request, [&](const auto& r) {
      return WriteResultArtifact(service.Grep(r), r.result_file, service.install_dir());
    });
  }
  if (method == "file_export") {
    return Handle<FileExportRequest>(request, [&](const auto& r) { return service.Export(r); });
  }
  return Continue(UnsupportedMethodResult());
}

}  // namespace brimo_stack::quay_tools_host
