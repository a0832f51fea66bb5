// file_glob: which files, directories and links below a root match a pattern. rg --files is
// only a fast way through a large tree; every path it prints is decided again before it counts.
#include <filesystem>
#include <string>
#include <system_error>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/glob_pattern.h"
#include "quay_tools_host/search/glob_result_builder.h"
#include "quay_tools_host/search/glob_walk.h"
#include "quay_tools_host/search/grep_policy_filters.h"
#include "quay_tools_host/search/ripgrep_glob_plan.h"
#include "quay_tools_host/search/ripgrep_glob_run.h"

namespace brimo_stack::quay_tools_host {
namespace {

namespace fs = std::filesystem;
using namespace internal;

constexpr uint64_t kMaxGlobDepth = 100;
constexpr uint64_t kMaxGlobTimeoutMs = 4611686018427;

CommandResult InvalidGlobArgument(std::string_view text) {
  return CommandResult::Failure(kCategoryRefused, 1, std::string(text));
}

// The kinds a request wants, or a refusal of its type word.
CommandResult GlobTypeMask(const FileGlobRequest& request, uint8_t& mask) {
  mask = kGlobAllTypes;
  if (request.return_files_only || !request.type.has_value()) return CommandResult::Success();
  for (const GlobEntryKind kind : {GlobEntryKind::kFile, GlobEntryKind::kDirectory, GlobEntryKind::kSymlink}) {
    if (*request.type == GlobEntryKindName(kind)) {
      mask = GlobKindBit(kind);
      return CommandResult::Success();
    }
  }
  return InvalidGlobArgument("type must be file, directory, or symlink");
}

// The last name of a root that is listed itself rather than searched.
bool RootNameMatches(const GlobPattern& pattern, const fs::path& root) {
  return pattern.Advance(pattern.InitialState(), PathToUtf8(root.filename())).matched;
}

// A link as the root is listed as what it is, never searched through.
CommandResult GlobLinkRoot(const FileGlobRequest& request, const GlobPattern& pattern, const fs::path& logical,
                           GlobResultBuilder& builder) {
  CommandResult allowed = CheckFileAccess(CompileFileAccessPolicy(request.policy, false), PathToUtf8(logical));
  if (!allowed.ok) return allowed;
  std::error_code error;
  const fs::path canonical = fs::canonical(logical, error);
  if (error) return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "resolve search root", logical, error);
  allowed = CheckRequestPathAccess(request.policy, logical, canonical, false);
  if (!allowed.ok) return allowed;
  if (RootNameMatches(pattern, logical)) builder.Add(GlobEntryKind::kSymlink, logical);
  return builder.ToResult();
}

}  // namespace

CommandResult FileCommandService::Glob(const FileGlobRequest& request) {
  if (request.pattern.empty()) return InvalidGlobArgument("pattern is empty");
  uint8_t type_mask = 0;
  CommandResult step = GlobTypeMask(request, type_mask);
  if (!step.ok) return step;
  if (request.max_results == 0) return InvalidGlobArgument("max_results must be greater than 0");
  uint64_t max_depth = kGlobUnlimitedDepth;
  if (!request.return_files_only) {
    if (request.max_depth == 0 || request.max_depth > kMaxGlobDepth) {
      return InvalidGlobArgument("max_depth must be between 1 and 100");
    }
    max_depth = request.max_depth;
  }
  const uint64_t timeout_ms = request.timeout_ms == 0 ? kDefaultSearchTimeoutMs : request.timeout_ms;
  if (timeout_ms > kMaxGlobTimeoutMs) return InvalidGlobArgument("timeout_ms is too large");
  const GlobDeadline deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);

  GlobResultBuilder builder(type_mask, request.max_results, request.return_files_only);
  const GlobPattern pattern(request.pattern);
  const std::string path = request.path.has_value() && !request.path->empty() ? *request.path : ".";
  fs::path logical;
  step = ResolveRequestPath(request.base_cwd, path, logical);
  if (!step.ok) return step;
  std::error_code error;
  const fs::file_status logical_status = fs::symlink_status(logical, error);
  if (error && !IsNotFoundErrorCode(error)) {
    return MakeFileErrorFromErrorCode(FileErrorKind::kGlobFailed, "inspect search root", error);
  }
  if (!error && fs::is_symlink(logical_status)) return GlobLinkRoot(request, pattern, logical, builder);

  fs::path real;
  step = RequireSearchRoot(request.base_cwd, path, real);
  if (!step.ok) return step;
  const FileAccessPolicy policy = CompileFileAccessPolicy(request.policy, false);
  step = CheckRequestPathAccess(request.policy, logical, real, false);
  if (!step.ok) return step;

  const fs::path long_root = NormalizeFilePath(real, true);
  const fs::file_status root_status = fs::status(long_root, error);
  if (error) return MakeFileErrorFromErrorCode(FileErrorKind::kGlobFailed, "inspect search root", error);
  if (fs::is_regular_file(root_status)) {
    if (RootNameMatches(pattern, long_root)) builder.Add(GlobEntryKind::kFile, long_root);
    return builder.ToResult();
  }
  if (!fs::is_directory(root_status)) {
    return MakeFileError(FileErrorKind::kInvalidFilePath, kCategoryRefused, 1,
                         "glob search root is not a file or directory");
  }

  RipgrepGlobPlan plan;
  plan.root = real;
  plan.pattern = request.pattern;
  plan.max_depth = max_depth;
  const bool files_only_search = !request.return_files_only && type_mask == GlobKindBit(GlobEntryKind::kFile);
  if (files_only_search) {
    step = BuildRipgrepGlobPlan(policy, plan);
    if (!step.ok) return step;
    if (plan.no_results) return builder.ToResult();
  }
  const GlobPattern remaining(plan.pattern);
  const fs::path walk_root = NormalizeFilePath(plan.root, true);
  if (plan.literal_name.has_value()) {
    step = ScanDirectoryForName(walk_root, *plan.literal_name, policy, deadline, builder);
    return step.ok ? builder.ToResult() : step;
  }

  fs::path rg_path;
  if (files_only_search && !plan.single_level && IsRootRecursivelyCovered(plan.root, request.policy) &&
      ripgrep_path_cache().Resolve(rg_path).ok) {
    RipgrepGlobRun glob_run;
    glob_run.run.rg_path = rg_path;
    step = BuildRipgrepGlobArguments(plan, request.policy, glob_run.run.arguments);
    if (!step.ok) return step;
    glob_run.run.cwd = plan.root;
    glob_run.run.root = plan.root;
    glob_run.run.base_env = request.base_env;
    glob_run.run.environment_mode = request.environment_mode;
    glob_run.run.timeout_ms = timeout_ms;
    glob_run.run.sbox_log_dir = sbox_log_dir();
    glob_run.run.sbox_dump_dir = sbox_dump_dir();
    glob_run.pattern = &remaining;
    glob_run.policy = &policy;
    bool started = false;
    step = RunRipgrepGlobProcess(glob_run, builder, started);
    if (started) return step.ok ? builder.ToResult() : step;
  }
  step = WalkGlob(walk_root, remaining, policy, deadline, plan.max_depth, builder);
  return step.ok ? builder.ToResult() : step;
}

}  // namespace brimo_stack::quay_tools_host
