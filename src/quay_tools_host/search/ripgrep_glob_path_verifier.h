// Every path that rg --files prints is proved again before it counts: the pattern, the policy,
// and a real directory (no link) at every level between the root and the file.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/glob_pattern.h"
#include "quay_tools_host/search/glob_result_builder.h"

namespace brimo_stack::quay_tools_host::internal {

// Directories cached per run before the cache starts again: a tree with more is decided anew.
inline constexpr size_t kMaxVerifiedDirectories = 65536;

class RipgrepGlobPathVerifier {
 public:
  // `root` is the directory rg ran in: every path it prints is relative to it.
  RipgrepGlobPathVerifier(const std::filesystem::path& root, FileAccessPolicy policy);

  // One NUL-separated record of rg. A path that does not count is a success that adds nothing.
  [[nodiscard]] CommandResult Verify(std::string_view raw_path, const GlobPattern& pattern,
                                     GlobResultBuilder& builder);

 private:
  struct VerifiedDirectory {
    std::filesystem::path real_path;
    bool valid = false;
  };

  // The real directory behind `parent` (relative), or an empty path when it does not count.
  [[nodiscard]] CommandResult VerifyParent(const std::filesystem::path& parent, std::filesystem::path& real_parent);

  std::filesystem::path root_;
  FileAccessPolicy policy_;
  std::unordered_map<std::string, VerifiedDirectory> directories_;
};

}  // namespace brimo_stack::quay_tools_host::internal
