// Notebook documents as JSON values: finding, building and changing cells, and the whole edit.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/command_requests.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr uint64_t kNotebookFileLimit = 16777216;
inline constexpr uint64_t kNotebookSourceLimit = 16777216;

// The first object cell whose string id equals `id`; else, for an all-digit `id`, that index.
[[nodiscard]] std::optional<size_t> FindNotebookCell(const nlohmann::json& cells, std::string_view id);
[[nodiscard]] nlohmann::json MakeNotebookCell(std::string_view cell_type, std::string_view source,
                                              std::string_view id);
// Sets the type and adds or removes the keys that only code cells have.
void ApplyNotebookCellType(nlohmann::json& cell, std::string_view cell_type);
// Cut behind every line feed; "" gives one empty string.
[[nodiscard]] std::vector<std::string> SplitNotebookSource(std::string_view text);
[[nodiscard]] std::string MakeNotebookCellId();

struct NotebookEditOutcome {
  std::string serialized;
  uint64_t cell_count = 0;
  std::optional<std::string> inserted_cell_id;
};

// Everything of the command between the load and the write: parse, check the request, edit,
// serialise. `text` is the file's validated UTF-8.
[[nodiscard]] CommandResult EditNotebookText(std::string_view text, const FileNotebookEditRequest& request,
                                             NotebookEditOutcome& outcome);

}  // namespace brimo_stack::quay_tools_host::internal
