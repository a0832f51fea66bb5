// Where rg lives, checked at initialisation and again before every search.
#include "quay_tools_host/search/ripgrep_path_cache.h"

#include <spdlog/spdlog.h>

#include "brimo_stack/local_runtime/process_environment.h"
#include "brimo_stack_common/log_summary.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr std::string_view kSetEnvironmentStage = "set private ripgrep environment";

CommandResult RgUnavailable() {
  return MakeFileError(FileErrorKind::kRgNotFound, kCategoryRefused, 1, "activated rg executable is unavailable");
}

bool IsRegularFile(const std::filesystem::path& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  return !error && std::filesystem::is_regular_file(status);
}

}  // namespace

CommandResult RipgrepPathCache::Configure(std::string_view rg_executable) {
  std::lock_guard<std::mutex> lock(mutex_);
  configured_ = false;
  path_utf8_.clear();
  path_.clear();

  if (rg_executable.empty()) {
    CommandResult cleared =
        local_runtime::SetProcessEnvironmentVariable(kRipgrepEnvironmentVariable, "", kSetEnvironmentStage);
    configured_ = cleared.ok;
    return cleared;
  }

  const std::filesystem::path path = NormalizeFilePath(PrepareWidePath(rg_executable), /*force_long=*/false);
  if (!IsFullyQualifiedPath(path) || !IsRegularFile(path)) {
    return RgUnavailable();
  }
  path_utf8_ = path.native();
  CommandResult stored =
      local_runtime::SetProcessEnvironmentVariable(kRipgrepEnvironmentVariable, path_utf8_, kSetEnvironmentStage);
  if (!stored.ok) {
    path_utf8_.clear();
    return stored;
  }
  path_ = path;
  configured_ = true;
  SPDLOG_INFO("private rg environment initialized, path={}", SummarizePathForLog(path_));
  return CommandResult::Success();
}

CommandResult RipgrepPathCache::Resolve(std::filesystem::path& out_path) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!configured_) {
    return MakeFileError(FileErrorKind::kRgNotFound, kCategoryInternal, 0, "private rg environment is not initialized");
  }
  if (path_utf8_.empty()) {
    return MakeFileError(FileErrorKind::kRgNotFound, kCategoryRefused, 1, "runtime activation did not provide rg");
  }
  const auto current = local_runtime::GetProcessEnvironmentVariable(kRipgrepEnvironmentVariable);
  if (!current.has_value() || *current != path_utf8_) {
    return MakeFileError(FileErrorKind::kRgNotFound, kCategoryInternal, 0,
                         "private rg environment changed after initialization");
  }
  if (!IsRegularFile(path_)) {
    path_.clear();
    return RgUnavailable();
  }
  out_path = path_;
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
