// Notebook documents as JSON values: finding, building and changing cells, and the whole edit.
#include "quay_tools_host/edits/notebook_cells.h"

#include <charconv>

#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/writes/atomic_file_writer.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
// Far deeper than real notebooks nest; serialising a tree recurses once a level.
constexpr size_t kMaxNotebookDepth = 512;

CommandResult Refuse(std::string message) { return CommandResult::Failure(kCategoryRefused, 1, std::move(message)); }

bool AllDigits(std::string_view text) {
  if (text.empty()) {
    return false;
  }
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
  }
  return true;
}

// A scan of the text, not a parse callback, which would still build the tree it refuses.
bool NestsDeeperThan(std::string_view text, size_t limit) {
  size_t depth = 0;
  bool in_string = false;
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (in_string) {
      if (c == '\\') {
        ++at;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) {
        return true;
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

}  // namespace

std::optional<size_t> FindNotebookCell(const nlohmann::json& cells, std::string_view id) {
  for (size_t index = 0; index < cells.size(); ++index) {
    const nlohmann::json& cell = cells[index];
    if (!cell.is_object()) {
      continue;
    }
    const auto found = cell.find("id");
    // An id that is not a string names no cell: it must not stop the edit with a type error.
    const bool matches = found == cell.end() ? id.empty() : found->is_string() && found->get_ref<const std::string&>() == id;
    if (matches) {
      return index;
    }
  }
  if (AllDigits(id)) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), value);
    if (error == std::errc() && end == id.data() + id.size() && value < cells.size()) {
      return static_cast<size_t>(value);
    }
  }
  return std::nullopt;
}

nlohmann::json MakeNotebookCell(std::string_view cell_type, std::string_view source, std::string_view id) {
  nlohmann::json cell = nlohmann::json::object();
  cell["cell_type"] = cell_type;
  cell["id"] = id;
  cell["metadata"] = nlohmann::json::object();
  cell["source"] = source;
  if (cell_type == "code") {
    cell["execution_count"] = nullptr;
    cell["outputs"] = nlohmann::json::array();
  }
  return cell;
}

void ApplyNotebookCellType(nlohmann::json& cell, std::string_view cell_type) {
  cell["cell_type"] = cell_type;
  if (cell_type == "code") {
    if (!cell.contains("execution_count")) {
      cell["execution_count"] = nullptr;
    }
    const auto outputs = cell.find("outputs");
    if (outputs == cell.end() || !outputs->is_array()) {
      cell["outputs"] = nlohmann::json::array();
    }
  } else {
    cell.erase("execution_count");
    cell.erase("outputs");
  }
}

std::vector<std::string> SplitNotebookSource(std::string_view text) {
  std::vector<std::string> lines;
  if (text.empty()) {
    lines.emplace_back();
    return lines;
  }
  size_t start = 0;
  while (start < text.size()) {
    const size_t feed = text.find('\n', start);
    const size_t end = feed == std::string_view::npos ? text.size() : feed + 1;
    lines.emplace_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

std::string MakeNotebookCellId() { return "brimo-stack-" + MakeUniqueToken(); }

CommandResult EditNotebookText(std::string_view text, const FileNotebookEditRequest& request,
                               NotebookEditOutcome& outcome) {
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  // No JSON text holds a raw NUL, and the parser would take one for the end of the input:
  // the rewrite would silently drop everything behind it.
  if (NestsDeeperThan(text, kMaxNotebookDepth) || text.find('\0') != std::string_view::npos) {
    return Refuse("INVALID_NOTEBOOK_JSON: failed to parse notebook JSON");
  }
  nlohmann::json document =
      nlohmann::json::parse(text, /*cb=*/nullptr, /*allow_exceptions=*/false, /*ignore_comments=*/false);
  if (document.is_discarded() || !document.is_object()) {
    return Refuse("INVALID_NOTEBOOK_JSON: failed to parse notebook JSON");
  }
  const auto cells_at = document.find("cells");
  if (cells_at == document.end() || !cells_at->is_array()) {
    return Refuse("INVALID_NOTEBOOK_CELLS: notebook file must contain a cells array");
  }
  nlohmann::json& cells = *cells_at;
  const std::string mode = request.edit_mode.value_or("replace");
  if (mode != "replace" && mode != "insert" && mode != "delete") {
    return Refuse("INVALID_EDIT_MODE: edit_mode must be replace, insert, or delete");
  }
  if (request.cell_type.has_value() && *request.cell_type != "code" && *request.cell_type != "markdown") {
    return Refuse("INVALID_CELL_TYPE: cell_type must be code or markdown");
  }
  const bool has_cell_id = request.cell_id.has_value() && !request.cell_id->empty();
  if (mode != "insert" && !has_cell_id) {
    return Refuse("INVALID_CELL_ID: cell_id is required for replace/delete");
  }
  if (mode != "delete" && !request.new_source.has_value()) {
    return Refuse("INVALID_NEW_SOURCE: new_source is required for replace/insert");
  }
  if (request.new_source.has_value() && request.new_source->size() > kNotebookSourceLimit) {
    return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 1,
                         "notebook cell source exceeds 16777216 bytes");
  }

  outcome.inserted_cell_id.reset();
  if (mode == "insert") {
    std::string id = MakeNotebookCellId();
    while (FindNotebookCell(cells, id).has_value()) {
      id = MakeNotebookCellId();
    }
    nlohmann::json cell = MakeNotebookCell(request.cell_type.value_or("code"), *request.new_source, id);
    if (!has_cell_id) {
      cells.push_back(std::move(cell));
    } else {
      const std::optional<size_t> after = FindNotebookCell(cells, *request.cell_id);
      if (!after.has_value()) {
        return MakeFileMutationError(FileMutationErrorKind::kCellIdNotFound, "cell_id not found");
      }
      cells.insert(cells.begin() + static_cast<std::ptrdiff_t>(*after + 1), std::move(cell));
    }
    outcome.inserted_cell_id = std::move(id);
  } else {
    const std::optional<size_t> index = FindNotebookCell(cells, *request.cell_id);
    if (!index.has_value()) {
      return MakeFileMutationError(FileMutationErrorKind::kCellIdNotFound, "cell_id not found");
    }
    nlohmann::json& cell = cells[*index];
    if (!cell.is_object()) {
      return Refuse("INVALID_NOTEBOOK_CELL: target cell is not an object");
    }
    if (mode == "delete") {
      cells.erase(*index);
    } else {
      if (request.cell_type.has_value()) {
        ApplyNotebookCellType(cell, *request.cell_type);
      }
      const auto source = cell.find("source");
      if (source != cell.end() && source->is_array()) {
        cell["source"] = SplitNotebookSource(*request.new_source);
      } else {
        cell["source"] = *request.new_source;
      }
    }
  }

  outcome.cell_count = cells.size();
  outcome.serialized = document.dump(2, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
  if (outcome.serialized.size() > kNotebookFileLimit) {
    return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0, "edited notebook exceeds 16777216 bytes");
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
