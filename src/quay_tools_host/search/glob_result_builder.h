// What a file_glob keeps: paths by kind under a count cap and a byte budget, and its JSON.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

enum class GlobEntryKind : int32_t { kFile = 0, kDirectory = 1, kSymlink = 2 };

inline constexpr uint8_t kGlobAllTypes = 0b111;
// The result lists stay below this many bytes of escaped text plus three per entry.
inline constexpr uint64_t kGlobResultByteBudget = 0x3FF001;

// "file", "directory", "symlink": the JSON keys and log names.
[[nodiscard]] std::string_view GlobEntryKindName(GlobEntryKind kind);
[[nodiscard]] constexpr uint8_t GlobKindBit(GlobEntryKind kind) { return uint8_t{1} << static_cast<int>(kind); }

class GlobResultBuilder {
 public:
  GlobResultBuilder(uint8_t type_mask, uint64_t max_results, bool return_files_only);

  // Keeps the path when its kind is wanted and it fits; a dropped wanted entry marks its kind.
  void Add(GlobEntryKind kind, const std::filesystem::path& path);
  // Every wanted kind has lost an entry: nothing more can change the answer.
  [[nodiscard]] bool IsExhausted() const;
  [[nodiscard]] bool Wants(GlobEntryKind kind) const { return (type_mask_ & GlobKindBit(kind)) != 0; }
  // {"matches":{...},"truncated":{...}}, or {"files":[...]} newest first for return_files_only.
  [[nodiscard]] CommandResult ToResult();

  [[nodiscard]] uint8_t type_mask() const { return type_mask_; }
  [[nodiscard]] uint8_t exhausted_mask() const { return exhausted_mask_; }
  [[nodiscard]] uint64_t count() const { return count_; }
  [[nodiscard]] uint64_t json_bytes() const { return json_bytes_; }

 private:
  [[nodiscard]] std::vector<std::string>& ListOf(GlobEntryKind kind);

  uint8_t type_mask_ = kGlobAllTypes;
  uint8_t exhausted_mask_ = 0;
  uint64_t max_results_ = UINT64_MAX;
  uint64_t count_ = 0;
  uint64_t json_bytes_ = 0;
  std::vector<std::string> files_;
  std::vector<std::string> directories_;
  std::vector<std::string> symlinks_;
  bool return_files_only_ = false;
};

}  // namespace brimo_stack::quay_tools_host::internal
