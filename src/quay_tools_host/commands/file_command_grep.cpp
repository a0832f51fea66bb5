// file_grep: rg searches, and the policy decides every printed line again on its own.
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/file_command_service.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/policy/file_access_policy.h"
#include "quay_tools_host/search/grep_arguments.h"
#include "quay_tools_host/search/grep_output_filter.h"
#include "quay_tools_host/search/grep_policy_filters.h"
#include "quay_tools_host/search/ripgrep_process.h"

namespace brimo_stack::quay_tools_host {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kMaxGrepTimeoutMs = 4611686018427;

// rg runs in the directory it searches, or beside the file it searches.
fs::path GrepWorkingDirectory(const fs::path& target, std::string_view base_cwd) {
  std::error_code error;
  if (fs::is_directory(fs::status(target, error)) && !error) return target;
  if (!target.parent_path().empty()) return target.parent_path();
  if (!base_cwd.empty()) return PrepareWidePath(base_cwd);
  return fs::current_path(error);
}

}  // namespace

CommandResult FileCommandService::Grep(const FileGrepRequest& request) {
  using namespace internal;
  if (request.pattern.empty()) return CommandResult::Failure(kCategoryRefused, 1, "INVALID_GREP_PATTERN: pattern is empty");
  const uint64_t timeout_ms = request.timeout_ms == 0 ? kDefaultSearchTimeoutMs : request.timeout_ms;
  if (timeout_ms > kMaxGrepTimeoutMs) return CommandResult::Failure(kCategoryRefused, 1, "timeout_ms is too large");

  const std::string path = request.path.value_or("");
  fs::path logical;
  CommandResult step = ResolveRequestPath(request.base_cwd, path, logical);
  if (!step.ok) return step;
  fs::path real;
  step = RequireSearchRoot(request.base_cwd, path, real);
  if (!step.ok) return step;
  step = CheckRequestPathAccess(request.policy, logical, real, /*for_write=*/false);
  if (!step.ok) return step;
  const FileAccessPolicy policy = CompileFileAccessPolicy(request.policy, /*for_write=*/false);

  const fs::path long_root = NormalizeFilePath(real, true);
  std::error_code error;
  const fs::file_status root_status = fs::status(long_root, error);
  if (error) return MakeFileErrorFromErrorCode(FileErrorKind::kGlobFailed, "inspect grep root", error);
  const bool root_is_file = fs::is_regular_file(root_status);
  if (!root_is_file && !IsRootRecursivelyCovered(real, request.policy)) {
    return CommandResult::Failure(kCategoryRefused, 1,
                                  "FILE_ACCESS_DENIED: grep root is not recursively covered by the whitelist");
  }
  fs::path rg_path;
  step = ripgrep_path_cache().Resolve(rg_path);
  if (!step.ok) return step;

  const fs::path target = root_is_file ? real : long_root;
  RipgrepRun run;
  run.rg_path = rg_path;
  step = BuildGrepArguments(request, real, target, run.arguments);
  if (!step.ok) return step;
  run.cwd = GrepWorkingDirectory(target, request.base_cwd);
  run.root = real;
  run.base_env = request.base_env;
  run.environment_mode = request.environment_mode;
  run.timeout_ms = timeout_ms;
  run.stdout_limit = request.return_output_only ? UINT64_MAX : kGrepStdoutLimit;
  run.sbox_log_dir = sbox_log_dir();
  run.sbox_dump_dir = sbox_dump_dir();
  RipgrepOutput output;
  step = RunRipgrepProcess(run, output);
  if (!step.ok) return step;

  if (output.stdout_truncated) TrimToCompleteLines(output.stdout_text);
  FilterGrepOutput(real, target, policy, output.stdout_text);
  nlohmann::json data = {{"output", std::move(output.stdout_text)}};
  if (!request.return_output_only) data["truncated"] = output.stdout_truncated || output.permission_errors_only;
  return MakeJsonOutputResult(std::move(data));
}

}  // namespace brimo_stack::quay_tools_host
