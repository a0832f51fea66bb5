// file_notebook_edit: replaces, inserts or deletes one cell and rewrites the notebook atomically.
#include <filesystem>

#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/commands/existing_file_entry.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/file_read_primitives.h"
#include "quay_tools_host/edits/notebook_cells.h"

namespace brimo_stack::quay_tools_host {
namespace {

using internal::FileMutationErrorKind;

CommandResult MapFileMissing(CommandResult result) {
  return internal::MapMutationFailure(std::move(result), FileMutationErrorKind::kFileNotFound);
}

}  // namespace

CommandResult FileCommandService::NotebookEdit(const FileNotebookEditRequest& request) {
  std::filesystem::path real;
  CommandResult allowed = internal::ResolveExistingFileUnderPolicy(
      request.base_cwd, request.path, request.policy, /*for_write=*/true, FileMutationErrorKind::kFileNotFound, real);
  if (!allowed.ok) {
    return allowed;
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
