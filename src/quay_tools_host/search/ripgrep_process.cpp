// One run of rg: the child, its two capped readers, the time limit and the stop sequence.
#include "quay_tools_host/search/ripgrep_process.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "brimo_stack_common/log_summary.h"
#include "brimo_stack_common/path_text.h"
#include "process_runtime/native_process.h"
#include "quay_tools_host/writes/export_target.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

using process_runtime::INativeProcess;
using process_runtime::OutputRead;
using process_runtime::ProcessLaunchOptions;
using SteadyClock = std::chrono::steady_clock;

constexpr size_t kReadBufferSize = 4096;
constexpr uint64_t kTerminateGraceMs = 1000;
constexpr uint64_t kKillGraceMs = 1000;
constexpr auto kDrainWait = std::chrono::milliseconds(1000);

constexpr std::array<std::string_view, 3> kPermissionEndings = {
    ": Operation not permitted (os error 1)",
    ": Permission denied (os error 13)",
    ": Access is denied. (os error 5)",
};

// Shared by the run and both readers, so a reader that outlives a failed drain still owns
// valid memory. Strings, statuses and truncation flags have one writer each; the run reads
// them only after it saw the writer's done flag under the mutex.
struct RipgrepProcessState {
  std::shared_ptr<INativeProcess> process = process_runtime::CreateNativeProcess();
  RipgrepStdoutConsumer stdout_consumer;
  RipgrepOutput output;
  CommandResult stdout_status;
  CommandResult stderr_status;
  std::mutex reader_mutex;
  std::condition_variable reader_done;
  bool stdout_done = false;
  bool stderr_done = false;
  bool stderr_truncated = false;
};

enum class OutputStream { kStdout, kStderr };

struct ReaderThreads {
  std::thread stdout_reader;
  std::thread stderr_reader;
};

// Which readers had published when the drain ended: only their results may be read.
struct DrainOutcome {
  CommandResult result;
  bool stdout_done = false;
  bool stderr_done = false;
};

// Keeps reading and dropping past the limit so the child never stalls on a full pipe; output
// of exactly the limit counts as truncated.
CommandResult ReadCappedProcessOutput(INativeProcess& process, OutputStream stream, uint64_t limit,
                                      std::string& target, bool& truncated) {
  char buffer[kReadBufferSize];
  for (;;) {
    OutputRead read;
    CommandResult status = stream == OutputStream::kStdout ? process.ReadStdout(buffer, sizeof(buffer), read)
                                                           : process.ReadStderr(buffer, sizeof(buffer), read);
    if (!status.ok) return status;
    if (read.eof) return CommandResult::Success();
    if (read.bytes_read == 0) {
      return CommandResult::Failure(kCategoryInternal, 0, "process output read returned no data before eof");
    }
    if (target.size() < limit) {
      target.append(buffer, static_cast<size_t>(std::min<uint64_t>(read.bytes_read, limit - target.size())));
    }
    if (read.bytes_read > limit || target.size() >= limit) truncated = true;
  }
}

// The status is stored before the done flag is set under the mutex: a flag seen true proves
// that the status and the string are complete.
void RunReader(std::shared_ptr<RipgrepProcessState> state, OutputStream stream, uint64_t limit) {
  const bool is_stdout = stream == OutputStream::kStdout;
  CommandResult status;
  try {
    if (is_stdout && state->stdout_consumer) {
      status = state->stdout_consumer(*state->process);
    } else {
      status = is_stdout ? ReadCappedProcessOutput(*state->process, stream, limit, state->output.stdout_text,
                                                 state->output.stdout_truncated)
                       : ReadCappedProcessOutput(*state->process, stream, limit, state->output.stderr_text,
                                                 state->stderr_truncated);
    }
  } catch (const std::exception& error) {
    // An unlimited stdout can outgrow memory; that fails the run, not the host.
    status = CommandResult::Failure(kCategoryInternal, 0, std::string("rg output reader failed: ") + error.what());
  }
  (is_stdout ? state->stdout_status : state->stderr_status) = std::move(status);
  {
    std::lock_guard lock(state->reader_mutex);
    (is_stdout ? state->stdout_done : state->stderr_done) = true;
  }
  state->reader_done.notify_all();
}

// Joined after a good drain, so a finished run leaves no thread behind; detached only when a
// reader is still stuck after the reads were cancelled.
DrainOutcome DrainRipgrepReaders(RipgrepProcessState& state, ReaderThreads& readers) {
  const auto both_done = [&state] { return state.stdout_done && state.stderr_done; };
  DrainOutcome outcome;
  bool drained = false;
  {
    std::unique_lock lock(state.reader_mutex);
    drained = state.reader_done.wait_until(lock, SteadyClock::now() + kDrainWait, both_done);
  }
  if (!drained) {
    state.process->CancelReads();
    std::unique_lock lock(state.reader_mutex);
    drained = state.reader_done.wait_until(lock, SteadyClock::now() + kDrainWait, both_done);
  }
  {
    std::lock_guard lock(state.reader_mutex);
    outcome.stdout_done = state.stdout_done;
    outcome.stderr_done = state.stderr_done;
  }
  for (std::thread* reader : {&readers.stdout_reader, &readers.stderr_reader}) {
    if (!reader->joinable()) continue;
    if (drained) {
      reader->join();
    } else {
      reader->detach();
    }
  }
  if (!drained) outcome.result = CommandResult::Failure(kCategoryInternal, 0, "GREP_FAILED: failed to drain rg output");
  return outcome;
}

// Takes only what a finished reader wrote; an unfinished one may still be writing and counts
// as empty. Nothing reads the state's strings after this.
void TakeFinishedOutput(RipgrepProcessState& state, const DrainOutcome& drain, RipgrepRunEnd& end) {
  end.drain = drain.result;
  end.stdout_done = drain.stdout_done;
  end.stderr_done = drain.stderr_done;
  if (drain.stdout_done) {
    end.stdout_status = state.stdout_status;
    end.output.stdout_text = std::move(state.output.stdout_text);
    end.output.stdout_truncated = state.output.stdout_truncated;
  }
  if (drain.stderr_done) {
    end.stderr_status = state.stderr_status;
    end.output.stderr_text = std::move(state.output.stderr_text);
    end.stderr_truncated = state.stderr_truncated;
  }
}

int64_t MillisecondsSince(SteadyClock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - start).count();
}

std::string_view OperationName(RipgrepOperation operation) {
  return operation == RipgrepOperation::kGrep ? "grep" : "glob";
}

// Logs a failed cleanup step, by its numbers when the failure carries them.
void LogCleanupFailure(RipgrepOperation operation, std::string_view stage, const CommandResult& failure) {
  if (failure.error.has_value()) {
    SPDLOG_ERROR("rg_process_cleanup_failed operation={} stage={} category={} code={}", OperationName(operation),
                 stage, failure.error->category, failure.error->code);
  } else {
    SPDLOG_ERROR("rg_process_cleanup_failed operation={} stage={} reason=missing_error", OperationName(operation),
                 stage);
  }
}

// rg from version 14 heads such a line with "rg: "; the rg 13 of this platform's packages prints
// the path alone, so without the head the path must be absolute, or below the "." that a
// listing run searches, to count.
bool PermissionLineInsideRoot(std::string_view line, const std::filesystem::path& root, bool root_counts) {
  constexpr std::string_view kPrefix = "rg: ";
  const bool headed = line.starts_with(kPrefix);
  const auto ending = std::find_if(kPermissionEndings.begin(), kPermissionEndings.end(),
                                   [line](std::string_view end) { return line.ends_with(end); });
  const size_t head = headed ? kPrefix.size() : 0;
  if (ending == kPermissionEndings.end() || line.size() <= ending->size() + head) return false;
  const std::string_view text = line.substr(head, line.size() - head - ending->size());
  std::filesystem::path path = PathFromUtf8(text);
  if (!IsFullyQualifiedPath(path)) {
    if (!headed && !text.starts_with("./") && text != ".") return false;
    path = root / path;
  }
  path = path.lexically_normal();
  return IsPathInsideRoot(path, root) && (root_counts || !IsPathInsideRoot(root, path));
}

// Ends a child whose readers could not all be started; the started one ends once the child is
// gone or the reads are cancelled.
CommandResult AbandonRun(RipgrepOperation operation, RipgrepProcessState& state, ReaderThreads& readers,
                         const std::exception& error) {
  SPDLOG_ERROR("rg process reader start failed, process_role=rg, error={}", error.what());
  state.process->Terminate();
  uint32_t exit_code = 0;
  CommandResult waited = state.process->Wait(kTerminateGraceMs, exit_code);
  if (!waited.ok) {
    state.process->Kill();
    waited = state.process->Wait(kKillGraceMs, exit_code);
    if (!waited.ok) LogCleanupFailure(operation, "wait_after_kill", waited);
  }
  state.process->CancelReads();
  if (readers.stdout_reader.joinable()) readers.stdout_reader.join();
  return CommandResult::Failure(kCategoryInternal, 0,
                                std::string(operation == RipgrepOperation::kGrep ? "GREP_FAILED" : "GLOB_FAILED") +
                                    ": failed to start rg output reader: " + error.what());
}

// Terminate, then Kill, each with its grace, then the drain. grep announces the stop and its
// end; glob runs the same steps quietly.
void StopOverrunChild(RipgrepOperation operation, RipgrepProcessState& state, ReaderThreads& readers,
                      SteadyClock::time_point started, RipgrepRunEnd& end) {
  const bool grep = operation == RipgrepOperation::kGrep;
  if (grep) {
    SPDLOG_WARN("rg process wait failed, process_role=rg, stage=terminate, category={}, code={}",
                end.first_wait.error ? end.first_wait.error->category : 0,
                end.first_wait.error ? end.first_wait.error->code : 0);
  }
  state.process->Terminate();
  uint32_t exit_code = 0;
  CommandResult waited = state.process->Wait(kTerminateGraceMs, exit_code);
  if (!waited.ok) {
    if (waited.error.has_value()) {
      SPDLOG_WARN("rg_process_cleanup_failed operation={} stage=wait_after_terminate category={} code={}",
                  OperationName(operation), waited.error->category, waited.error->code);
    } else {
      SPDLOG_ERROR("rg_process_cleanup_failed operation={} stage=wait_after_terminate reason=missing_error",
                   OperationName(operation));
    }
    if (grep) SPDLOG_WARN("rg process terminate grace expired, process_role=rg, stage=kill");
    state.process->Kill();
    exit_code = 0;
    waited = state.process->Wait(kKillGraceMs, exit_code);
    if (!waited.ok) LogCleanupFailure(operation, "wait_after_kill", waited);
  }
  // A descendant that left the child's reach may still hold the pipes.
  state.process->CancelReads();
  const DrainOutcome drain = DrainRipgrepReaders(state, readers);
  if (!drain.result.ok) LogCleanupFailure(operation, "drain_readers", drain.result);
  TakeFinishedOutput(state, drain, end);
  if (grep) {
    SPDLOG_WARN("rg process cleanup completed, process_role=rg, stdout_bytes={}, stderr_bytes={}, duration_ms={}",
                end.output.stdout_text.size(), end.output.stderr_text.size(), MillisecondsSince(started));
  }
}

// The grep table after the child ended by itself; the first matching row decides.
CommandResult GrepResultOfFinishedRun(const RipgrepRunEnd& end, const std::filesystem::path& root,
                                      RipgrepOutput& output) {
  if (end.stdout_done && !end.stdout_status.ok) return end.stdout_status;
  if (end.stderr_done && !end.stderr_status.ok) return end.stderr_status;
  if (!end.drain.ok) return end.drain;
  if (static_cast<int32_t>(end.exit_code) <= 1) return CommandResult::Success();
  if (IsPermissionOnlyStderr(output.stderr_text, end.stderr_truncated, root)) {
    output.permission_errors_only = true;
    return CommandResult::Success();
  }
  return RipgrepExitFailure("GREP_FAILED", output.stderr_text);
}

}  // namespace

CommandResult RunRipgrepChild(const RipgrepRun& run, RipgrepOperation operation, RipgrepStdoutConsumer consumer,
                              bool& started, RipgrepRunEnd& end) {
  started = false;
  end = RipgrepRunEnd{};
  const bool grep = operation == RipgrepOperation::kGrep;
  const auto state = std::make_shared<RipgrepProcessState>();
  state->stdout_consumer = std::move(consumer);
  ProcessLaunchOptions options;
  options.executable = PathToUtf8(run.rg_path);
  options.arguments = run.arguments;
  options.cwd = PathToUtf8(run.cwd);
  options.base_env = std::string(run.base_env);
  options.environment_mode = run.environment_mode;
  options.transport = 0;
  options.sbox_log_dir = std::string(run.sbox_log_dir);
  options.sbox_dump_dir = std::string(run.sbox_dump_dir);

  const SteadyClock::time_point start_time = SteadyClock::now();
  if (grep) {
    SPDLOG_DEBUG("rg process started, process_role=rg, cwd={}, root={}, argument_count={}, base_env_bytes={}",
                 SummarizePathForLog(run.cwd), SummarizePathForLog(run.root), run.arguments.size(),
                 run.base_env.size());
  }
  CommandResult start = state->process->Start(options);
  if (!start.ok) {
    if (grep) {
      SPDLOG_ERROR("rg process launch failed, process_role=rg, category={}, code={}",
                   start.error ? start.error->category : 0, start.error ? start.error->code : 0);
    }
    return start;
  }
  started = true;
  state->process->CloseStdin();

  ReaderThreads readers;
  try {
    readers.stdout_reader = std::thread(RunReader, state, OutputStream::kStdout, run.stdout_limit);
    readers.stderr_reader = std::thread(RunReader, state, OutputStream::kStderr, kRipgrepStderrLimit);
  } catch (const std::exception& error) {
    return AbandonRun(operation, *state, readers, error);
  }

  end.first_wait = state->process->Wait(run.timeout_ms, end.exit_code);
  if (!end.first_wait.ok) {
    StopOverrunChild(operation, *state, readers, start_time, end);
    return CommandResult::Success();
  }
  TakeFinishedOutput(*state, DrainRipgrepReaders(*state, readers), end);
  if (grep) {
    SPDLOG_DEBUG(
        "rg process completed, process_role=rg, exit_code={}, stdout_bytes={}, stderr_bytes={}, "
        "stdout_truncated={}, stderr_truncated={}, duration_ms={}",
        end.exit_code, end.output.stdout_text.size(), end.output.stderr_text.size(), end.output.stdout_truncated,
        end.stderr_truncated, MillisecondsSince(start_time));
  }
  return CommandResult::Success();
}

CommandResult RunRipgrepProcess(const RipgrepRun& run, RipgrepOutput& output) {
  output = RipgrepOutput{};
  bool started = false;
  RipgrepRunEnd end;
  CommandResult ran = RunRipgrepChild(run, RipgrepOperation::kGrep, nullptr, started, end);
  if (!ran.ok) return ran;
  output = std::move(end.output);
  if (end.first_wait.ok) return GrepResultOfFinishedRun(end, run.root, output);
  CommandResult failure = std::move(end.first_wait);
  if (failure.error && failure.error->category == kCategoryTimeout && failure.error->code == 5) {
    failure.error->message = "GREP_TIMEOUT: rg exceeded timeout_ms";
  }
  return failure;
}

CommandResult RipgrepExitFailure(std::string_view head, std::string_view stderr_text) {
  const size_t end = stderr_text.find_last_not_of("\r\n");
  if (end == std::string_view::npos) {
    return CommandResult::Failure(kCategoryRefused, 1, std::string(head) + ": rg exited unsuccessfully");
  }
  return CommandResult::Failure(kCategoryRefused, 1, std::string(head) + ": " + std::string(stderr_text.substr(0, end + 1)));
}

bool IsPermissionOnlyStderr(std::string_view stderr_text, bool stderr_truncated, const std::filesystem::path& root,
                            bool root_counts) {
  if (stderr_truncated || stderr_text.empty()) return false;
  const std::filesystem::path normal_root = root.lexically_normal();
  bool any_line = false;
  size_t begin = 0;
  while (begin <= stderr_text.size()) {
    const size_t end = std::min(stderr_text.find('\n', begin), stderr_text.size());
    std::string_view line = stderr_text.substr(begin, end - begin);
    begin = end + 1;
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty()) continue;
    if (!PermissionLineInsideRoot(line, normal_root, root_counts)) return false;
    any_line = true;
  }
  return any_line;
}

}  // namespace brimo_stack::quay_tools_host::internal
