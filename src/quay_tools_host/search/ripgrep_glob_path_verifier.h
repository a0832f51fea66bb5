// Every path that rg --files prints is proved again before it counts: the pattern, the policy,
// and a real directory (no link) at every level between the root and the file, looked at again
// for every path.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/directory_chain.h"
#include "quay_tools_host/search/glob_pattern.h"
#include "quay_tools_host/search/glob_result_builder.h"

namespace brimo_stack::quay_tools_host::internal {

// Refused directories remembered per run before the memory starts again: they are then decided anew.
inline constexpr size_t kMaxRefusedDirectories = 65536;

class RipgrepGlobPathVerifier {
 public:
  // `root` is the directory rg ran in: every path it prints is relative to it.
  RipgrepGlobPathVerifier(const std::filesystem::path& root, FileAccessPolicy policy);

  // Marks a new read of rg's output: the root and each held directory are proved in place once
  // for the paths of a read, after rg printed them, rather than once per path.
  void StartRead() { ++read_; }

  // One NUL-separated record of rg. A path that does not count is a success that adds nothing.
  [[nodiscard]] CommandResult Verify(std::string_view raw_path, const GlobPattern& pattern,
                                     GlobResultBuilder& builder);

 private:
  // Leaves the chain at the path's parent, every level proved in place; false when the path
  // does not count.
  [[nodiscard]] CommandResult ReachParent(bool& reached);
  // root_text_ + "/" + the first `count` names of the path.
  [[nodiscard]] std::string TextOf(size_t count) const;

  std::filesystem::path root_;
  std::string root_text_;
  FileAccessPolicy policy_;
  bool root_open_ = false;
  uint64_t read_ = 1;
  uint64_t root_proved_in_read_ = 0;
  // Directories below the root that the chain holds, by name, and the names of the current path.
  DirectoryChain chain_;
  std::vector<std::string> chain_names_;
  std::vector<uint64_t> chain_proved_in_read_;
  std::vector<std::string_view> names_;
  // Relative texts of directories that were refused, missing or not directories: final for a run.
  std::unordered_set<std::string> refused_;
};

}  // namespace brimo_stack::quay_tools_host::internal
