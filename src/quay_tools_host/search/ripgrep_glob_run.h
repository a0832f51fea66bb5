// One rg --files run of file_glob: its stdout goes path by path through the verifier into a
// copy of the caller's builder, and rg is stopped as soon as nothing more can count.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/glob_pattern.h"
#include "quay_tools_host/search/glob_result_builder.h"
#include "quay_tools_host/search/ripgrep_process.h"

namespace brimo_stack::quay_tools_host::internal {

// An unterminated path longer than this is no path rg would print.
inline constexpr size_t kMaxPendingGlobPath = 4194304;

struct RipgrepGlobRun {
  RipgrepRun run;  // cwd is the root every printed path is relative to
  const GlobPattern* pattern = nullptr;
  const FileAccessPolicy* policy = nullptr;
};

// `started` false means rg never ran and left nothing behind: the caller may walk instead.
// Once started, the run's failure is the search's; on success its paths are in `builder`.
[[nodiscard]] CommandResult RunRipgrepGlobProcess(const RipgrepGlobRun& glob_run, GlobResultBuilder& builder,
                                                  bool& started);

}  // namespace brimo_stack::quay_tools_host::internal
