// file_notebook_edit: replaces, inserts or deletes one cell and rewrites the notebook atomically.
#include <filesystem>

#include "quay_tools_host/commands/editable_file.h"
#include "quay_tools_host/edits/notebook_cells.h"
#include "quay_tools_host/file_command_service.h"

namespace brimo_stack::quay_tools_host {

CommandResult FileCommandService::NotebookEdit(const FileNotebookEditRequest& request) {
  std::filesystem::path real;
  std::string text;
  CommandResult loaded = internal::LoadEditableFile(request.base_cwd, request.path, request.policy,
                                                    internal::kNotebookFileLimit, real, text);
  if (!loaded.ok) {
    return loaded;
  }
  internal::NotebookEditOutcome outcome;
  CommandResult edited = internal::EditNotebookText(text, request, outcome);
  if (!edited.ok) {
    return edited;
  }
  CommandResult written = internal::RewriteEditableFile(real, outcome.serialized);
  if (!written.ok) {
    return written;
  }
  nlohmann::json result{{"cell_count", outcome.cell_count}};
  if (outcome.inserted_cell_id.has_value()) {
    result["cell_id"] = *outcome.inserted_cell_id;
  }
  return MakeJsonOutputResult(std::move(result));
}

}  // namespace brimo_stack::quay_tools_host
