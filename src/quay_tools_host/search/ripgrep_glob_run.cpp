// rg lists, the verifier decides: the reader hands each NUL-ended path over as it arrives.
#include "quay_tools_host/search/ripgrep_glob_run.h"

#include <atomic>
#include <memory>
#include <utility>

#include "process_runtime/native_process.h"
#include "quay_tools_host/search/glob_walk.h"
#include "quay_tools_host/search/ripgrep_glob_path_verifier.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

using process_runtime::INativeProcess;
using process_runtime::OutputRead;

constexpr size_t kGlobReadSize = 4096;

// What the stdout reader owns until it has finished: it may outlive a run whose drain failed.
struct GlobReaderState {
  GlobReaderState(const GlobPattern& pattern_in, const std::filesystem::path& root, const FileAccessPolicy& policy,
                  const GlobResultBuilder& builder_in)
      : pattern(pattern_in), verifier(root, policy), builder(builder_in) {}

  GlobPattern pattern;
  RipgrepGlobPathVerifier verifier;
  GlobResultBuilder builder;
  std::atomic<bool> stopped{false};
  std::atomic<bool> path_unterminated{false};
};

CommandResult GlobFailure(int32_t category, int32_t code, std::string_view text) {
  return CommandResult::Failure(category, code, "GLOB_FAILED: " + std::string(text));
}

CommandResult ReadRipgrepGlobPaths(INativeProcess& process, GlobReaderState& state) {
  std::string pending;
  char buffer[kGlobReadSize];
  for (;;) {
    OutputRead read;
    CommandResult status = process.ReadStdout(buffer, sizeof(buffer), read);
    if (!status.ok) return status;
    pending.append(buffer, read.bytes_read);
    state.verifier.StartRead();
    if (pending.size() > kMaxPendingGlobPath) {
      return GlobFailure(kCategoryInternal, 0, "rg returned an oversized unterminated path");
    }
    size_t begin = 0;
    for (size_t nul = pending.find('\0'); nul != std::string::npos; nul = pending.find('\0', begin)) {
      CommandResult verified =
          state.verifier.Verify(std::string_view(pending).substr(begin, nul - begin), state.pattern, state.builder);
      if (!verified.ok) return verified;
      begin = nul + 1;
      if (state.builder.IsExhausted()) {
        state.stopped = true;
        process.Terminate();
        return CommandResult::Success();
      }
    }
    pending.erase(0, begin);
    if (read.eof) {
      state.path_unterminated = !pending.empty();
      return CommandResult::Success();
    }
    if (read.bytes_read == 0) return GlobFailure(kCategoryInternal, 0, "rg output read returned no data before eof");
  }
}

CommandResult UnterminatedPathFailure() {
  return GlobFailure(kCategoryInternal, 0, "rg returned an unterminated path");
}

}  // namespace

CommandResult RunRipgrepGlobProcess(const RipgrepGlobRun& glob_run, GlobResultBuilder& builder, bool& started) {
  const auto state = std::make_shared<GlobReaderState>(*glob_run.pattern, glob_run.run.cwd, *glob_run.policy, builder);
  RipgrepRunEnd end;
  CommandResult ran = RunRipgrepChild(
      glob_run.run, RipgrepOperation::kGlob,
      [state](INativeProcess& process) { return ReadRipgrepGlobPaths(process, *state); }, started, end);
  if (!ran.ok) return ran;

  if (end.first_wait.ok) {
    if (!end.drain.ok) return end.drain;
    builder = std::move(state->builder);
    if (!end.stdout_status.ok) return end.stdout_status;
    if (state->path_unterminated) return UnterminatedPathFailure();
    if (!end.stderr_status.ok) return end.stderr_status;
    if (state->stopped) return CommandResult::Success();
    if (static_cast<int32_t>(end.exit_code) <= 1) return CommandResult::Success();
    // A root that rg may enter but not list holds nothing to list, as the walk finds too.
    if (IsPermissionOnlyStderr(end.output.stderr_text, end.stderr_truncated, glob_run.run.cwd,
                               /*root_counts=*/true)) {
      return CommandResult::Success();
    }
    return RipgrepExitFailure("GLOB_FAILED", end.output.stderr_text);
  }

  const bool timed_out =
      end.first_wait.error && end.first_wait.error->category == kCategoryTimeout && end.first_wait.error->code == 5;
  if (!end.drain.ok) return timed_out ? GlobTimeoutFailure() : end.first_wait;
  builder = std::move(state->builder);
  if (timed_out) return GlobTimeoutFailure();
  if (!end.stdout_status.ok) return end.stdout_status;
  if (state->path_unterminated) return UnterminatedPathFailure();
  return end.first_wait;
}

}  // namespace brimo_stack::quay_tools_host::internal
