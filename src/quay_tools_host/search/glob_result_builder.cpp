// The kept paths of a file_glob by kind, under the request's cap and the frame's byte budget.
#include "quay_tools_host/search/glob_result_builder.h"

#include <algorithm>
#include <utility>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_read_lines.h"
#include "quay_tools_host/files/file_read_primitives.h"

namespace brimo_stack::quay_tools_host::internal {

namespace {

constexpr GlobEntryKind kKindsInOrder[] = {GlobEntryKind::kFile, GlobEntryKind::kDirectory, GlobEntryKind::kSymlink};
// Quotes and comma around each entry of a JSON list.
constexpr uint64_t kEntryOverhead = 3;

// Last write time in whole seconds times 10,000,000 through links; an entry whose status
// cannot be read sorts last.
int64_t NewestFirstKey(const std::string& text) {
  FileSnapshot snapshot;
  if (!TakeFileSnapshot(PathFromUtf8(text), snapshot).ok) return INT64_MIN;
  return static_cast<int64_t>(snapshot.modified);
}

}  // namespace

std::string_view GlobEntryKindName(GlobEntryKind kind) {
  switch (kind) {
    case GlobEntryKind::kFile: return "file";
    case GlobEntryKind::kDirectory: return "directory";
    case GlobEntryKind::kSymlink: return "symlink";
  }
  return "file";
}

GlobResultBuilder::GlobResultBuilder(uint8_t type_mask, uint64_t max_results, bool return_files_only)
    : type_mask_(type_mask), max_results_(max_results), return_files_only_(return_files_only) {}

std::vector<std::string>& GlobResultBuilder::ListOf(GlobEntryKind kind) {
  switch (kind) {
    case GlobEntryKind::kFile: return files_;
    case GlobEntryKind::kDirectory: return directories_;
    case GlobEntryKind::kSymlink: return symlinks_;
  }
  return files_;
}

void GlobResultBuilder::Add(GlobEntryKind kind, const std::filesystem::path& path) {
  const uint8_t bit = GlobKindBit(kind);
  if (!Wants(kind)) return;
  if (count_ >= max_results_) {
    exhausted_mask_ |= bit;
    return;
  }
  std::string text = WithoutLongPathPrefix(PathToUtf8(path));
  const uint64_t cost = JsonEscapedCost(text) + kEntryOverhead;
  // The newest-first form has no truncated key to report a drop, so only the cap limits it.
  if (!return_files_only_ && json_bytes_ + cost >= kGlobResultByteBudget) {
    exhausted_mask_ |= bit;
    return;
  }
  ListOf(kind).push_back(std::move(text));
  ++count_;
  json_bytes_ += cost;
}

bool GlobResultBuilder::IsExhausted() const { return (exhausted_mask_ & type_mask_) == type_mask_; }

CommandResult GlobResultBuilder::ToResult() {
  if (return_files_only_) {
    std::vector<std::pair<int64_t, std::string>> entries;
    entries.reserve(files_.size() + directories_.size() + symlinks_.size());
    for (const GlobEntryKind kind : kKindsInOrder) {
      for (std::string& text : ListOf(kind)) {
        const int64_t key = NewestFirstKey(text);
        entries.emplace_back(key, std::move(text));
      }
      ListOf(kind).clear();
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    nlohmann::json files = nlohmann::json::array();
    for (auto& entry : entries) files.push_back(std::move(entry.second));
    return MakeJsonOutputResult(nlohmann::json{{"files", std::move(files)}});
  }
  nlohmann::json matches = nlohmann::json::object();
  nlohmann::json truncated = nlohmann::json::object();
  for (const GlobEntryKind kind : kKindsInOrder) {
    if (!Wants(kind)) continue;
    std::vector<std::string>& list = ListOf(kind);
    std::sort(list.begin(), list.end());  // std::string compares bytes as unsigned
    const std::string name(GlobEntryKindName(kind));
    matches[name] = list;
    truncated[name] = (exhausted_mask_ & GlobKindBit(kind)) != 0;
  }
  return MakeJsonOutputResult(nlohmann::json{{"matches", std::move(matches)}, {"truncated", std::move(truncated)}});
}

}  // namespace brimo_stack::quay_tools_host::internal
