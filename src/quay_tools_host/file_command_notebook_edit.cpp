// file_notebook_edit: replaces, inserts or deletes one cell and rewrites the notebook atomically.
#include <filesystem>

#include "quay_tools_host/atomic_file_writer.h"
#include "quay_tools_host/file_access_policy.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/file_errors.h"
#include "quay_tools_host/file_paths.h"
#include "quay_tools_host/file_read_primitives.h"
#include "quay_tools_host/notebook_cells.h"

namespace brimo_stack::quay_tools_host {
namespace {

using internal::FileMutationErrorKind;

CommandResult MapFileMissing(CommandResult result) {
  return internal::MapMutationFailure(std::move(result), FileMutationErrorKind::kFileNotFound);
}

}  // namespace

CommandResult FileCommandService::NotebookEdit(const FileNotebookEditRequest& request) {
  std::filesystem::path logical;
  CommandResult resolved = internal::ResolveRequestPath(request.base_cwd, request.path, logical);
  if (!resolved.ok) {
    return resolved;
  }
  std::filesystem::path real;
  CommandResult regular =
      internal::RequireRegularFile(request.base_cwd, request.path, real, FileMutationErrorKind::kFileNotFound);
  if (!regular.ok) {
    return regular;
  }
  CommandResult allowed = internal::CheckRequestPathAccess(request.policy, logical, real, /*for_write=*/true);
  if (!allowed.ok) {
    return MapFileMissing(std::move(allowed));
  }
  std::string text;
  CommandResult loaded = internal::ReadValidatedUtf8File(real, text, internal::kNotebookFileLimit);
  if (!loaded.ok) {
    return MapFileMissing(std::move(loaded));
  }
  internal::NotebookEditOutcome outcome;
  CommandResult edited = internal::EditNotebookText(text, request, outcome);
  if (!edited.ok) {
    return edited;
  }
  CommandResult failure;
  if (!internal::WriteFileAtomically(real, outcome.serialized, failure)) {
    return MapFileMissing(std::move(failure));
  }
  nlohmann::json result{{"cell_count", outcome.cell_count}};
  if (outcome.inserted_cell_id.has_value()) {
    result["cell_id"] = *outcome.inserted_cell_id;
  }
  return MakeJsonOutputResult(std::move(result));
}

}  // namespace brimo_stack::quay_tools_host
