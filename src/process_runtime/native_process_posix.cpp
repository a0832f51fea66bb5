// The native process on Linux: pipes or a pseudo-terminal, a pidfd for waits and kills, an
// eventfd that ends idle reads, and a containment (a PID namespace or the process group) that
// takes the child's whole tree when it is killed.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <mutex>

#include <spdlog/spdlog.h>

#include "brimo_stack/local_runtime/child_environment.h"
#include "brimo_stack_common/log_summary.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "process_runtime/conpty_transport.h"
#include "process_runtime/native_process.h"
#include "process_runtime/posix/child_launcher.h"
#include "process_runtime/posix/executable_search.h"
#include "process_runtime/posix/process_table.h"

namespace brimo_stack::process_runtime {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kStdinWriteDeadline = std::chrono::seconds(5);
constexpr auto kProbeDeadline = std::chrono::seconds(10);
constexpr auto kProbeSilence = std::chrono::milliseconds(100);
constexpr auto kCleanupWait = std::chrono::milliseconds(1000);
constexpr unsigned short kTerminalColumns = 120;
constexpr unsigned short kTerminalRows = 30;

int PidfdSendSignal(int pidfd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

// Milliseconds left until `deadline` for poll, never negative, capped at what poll takes.
int MillisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

// All of `text` into the non-blocking `fd`, waiting for room until `deadline`: a child that does
// not read can hold the caller that long and no longer.
CommandResult WriteBeforeDeadline(int fd, std::string_view text, Clock::time_point deadline) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = RetryOnEintr([&] { return ::write(fd, text.data() + written, text.size() - written); });
    if (n > 0) {
      written += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno != EAGAIN) return MakeSystemCommandError("write shell stdin", errno);
    struct pollfd room = {fd, POLLOUT, 0};
    const int ready = RetryOnEintr([&] { return ::poll(&room, 1, MillisecondsUntil(deadline)); });
    if (ready < 0) return MakeSystemCommandError("write shell stdin", errno);
    if (ready == 0) return CommandResult::Failure(kCategoryTimeout, 5, "timed out writing shell stdin");
  }
  return CommandResult::Success();
}

// A pipe's two ends, both closed on exec.
CommandResult MakePipe(ScopedFd& read_end, ScopedFd& write_end, std::string_view stage) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return MakeSystemCommandError(stage, errno);
  read_end.Reset(ends[0]);
  write_end.Reset(ends[1]);
  return CommandResult::Success();
}

CommandResult SetNonBlocking(int fd, std::string_view stage) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return MakeSystemCommandError(stage, errno);
  return CommandResult::Success();
}

uint32_t ExitCodeOf(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return static_cast<uint32_t>(info.si_status);
  return 128u + static_cast<uint32_t>(info.si_status);
}

// The host's PATH, read at each start so that a change of it counts from then on.
std::string HostSearchPath() {
  const char* path = ::getenv("PATH");
  return path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
}

// The host must not die of a write to a child that has gone: the write fails with EPIPE instead.
void IgnoreBrokenPipes() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction current = {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
      struct sigaction ignore = {};
      ignore.sa_handler = SIG_IGN;
      ::sigaction(SIGPIPE, &ignore, nullptr);
    }
  });
}

// The pieces of one launch that both roads build the same way.
struct PreparedLaunch {
  ChildLaunch launch;
  CommandResult Prepare(const ProcessLaunchOptions& options, const std::vector<std::string>& arguments) {
    std::string error_text;
    int system_error = 0;
    if (!local_runtime::BuildEnvironmentBlock(options.base_env, static_cast<int>(options.environment_mode),
                                              launch.envp, error_text, &system_error)) {
      return system_error != 0 ? CommandResult::Failure(kCategorySystem, system_error, error_text)
                               : CommandResult::Failure(kCategoryRefused, 1, error_text);
    }
    if (options.sandbox) {
      // No sandbox library is loaded in this build: a launch that asks for one cannot have it.
      return CommandResult::Failure(kCategoryInternal, 0, "sandbox process options are incomplete");
    }
    launch.path = ResolveExecutablePath(options.executable, HostSearchPath());
    launch.argv.clear();
    launch.argv.push_back(options.executable);
    launch.argv.insert(launch.argv.end(), arguments.begin(), arguments.end());
    launch.cwd = options.cwd;
    return CommandResult::Success();
  }
};

class PosixProcess final : public INativeProcess {
 public:
  PosixProcess() = default;
  PosixProcess(const PosixProcess&) = delete;
  PosixProcess& operator=(const PosixProcess&) = delete;

  ~PosixProcess() override {
    Signal();
    ReapBlocking();
  }

  CommandResult Start(const ProcessLaunchOptions& options) override {
    reads_cancelled_.store(false);
    IgnoreBrokenPipes();
    if (options.executable.empty()) {
      return CommandResult::Failure(kCategoryRefused, 1, "shell executable path is empty");
    }
    CommandResult cwd = local_runtime::ValidateWorkingDirectory(options.cwd);
    if (!cwd.ok) return cwd;
    cancel_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!cancel_.valid()) return MakeSystemCommandError("create read cancellation event", errno);

    if (options.transport != 0) {
      ConptyTransportStage stage = ConptyTransportStage::kNone;
      std::string diagnostic;
      if (TryStartWithConpty(options, stage, diagnostic)) return CommandResult::Success();
      const std::string_view stage_name = ConptyTransportStageName(stage);
      const std::string instance_hash = HashForLog(options.instance_id);
      if (options.sandbox) {
        SPDLOG_ERROR(
            "shell_transport_start_failed platform=linux transport=conpty transport_stage={} process_role={} "
            "sdk_call_id={} task_id={} instance_id_hash={} diagnostic_bytes={} category={} code={}",
            stage_name, ProcessRoleLogName(options.role), options.sdk_call_id, options.task_id, instance_hash,
            diagnostic.size(), kCategoryInternal, 0);
        return CommandResult::Failure(kCategoryInternal, 0,
                                      "INTERACTIVE_TRANSPORT_CREATE_FAILED: ConPTY stage=" + std::string(stage_name) +
                                          ", error=" + diagnostic);
      }
      SPDLOG_WARN(
          "shell_process_start_conpty_failed fallback=pipe transport_stage={} process_role={} sdk_call_id={} "
          "task_id={} instance_id_hash={} diagnostic_bytes={}",
          stage_name, ProcessRoleLogName(options.role), options.sdk_call_id, options.task_id, instance_hash,
          diagnostic.size());
    }
    return StartOnPipes(options);
  }

  CommandResult WriteStdin(std::string_view text) override {
    std::lock_guard lock(stdin_mutex_);
    if (!stdin_write_.valid()) return CommandResult::Failure(kCategoryRefused, 1, "shell stdin is closed");
    std::string normalized;
    if (uses_conpty_) {
      normalized = NormalizeConsoleNewlines(text, false);
      text = normalized;
    }
    return WriteBeforeDeadline(stdin_write_.get(), text, Clock::now() + kStdinWriteDeadline);
  }

  void CloseStdin() override {
    std::lock_guard lock(stdin_mutex_);
    stdin_write_.Reset();
  }

  CommandResult ReadStdout(char* buffer, size_t size, OutputRead& out) override {
    return ReadOutput(stdout_read_.get(), buffer, size, out);
  }

  CommandResult ReadStderr(char* buffer, size_t size, OutputRead& out) override {
    return ReadOutput(stderr_read_.get(), buffer, size, out);
  }

  void CancelReads() override {
    reads_cancelled_.store(true);
    if (cancel_.valid()) {
      const uint64_t one = 1;
      (void)RetryOnEintr([&] { return ::write(cancel_.get(), &one, sizeof(one)); });
    }
  }

  CommandResult Wait(uint64_t timeout_ms, uint32_t& exit_code) override {
    exit_code = 0;
    if (pid_ < 0) {
      return CommandResult::Failure(kCategoryInternal, 0, "wait requested for a process that is not running");
    }
    const uint64_t wait_ms = std::min<uint64_t>(timeout_ms == 0 ? 100 : timeout_ms, 0xFFFFFFFFu);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    for (;;) {
      {
        std::lock_guard lock(reap_mutex_);
        if (exit_code_) {
          exit_code = *exit_code_;
          return CommandResult::Success();
        }
      }
      struct pollfd ended = {pidfd_.get(), POLLIN, 0};
      const int ready = ::poll(&ended, 1, MillisecondsUntil(deadline));
      if (ready < 0 && errno != EINTR) return MakeSystemCommandError("wait for process exit", errno);
      if (ready > 0) break;
      if (Clock::now() >= deadline) {
        return CommandResult::Failure(kCategoryTimeout, 5, "timed out waiting for process exit");
      }
    }
    // The status is read but the child stays a zombie until the destructor: while it does, its
    // number and its group's number cannot be given to another process, so a later Terminate
    // still reaches the descendants left in the group and nobody else.
    std::lock_guard lock(reap_mutex_);
    if (!exit_code_) {
      siginfo_t info = {};
      if (RetryOnEintr([&] {
            return ::waitid(P_PIDFD, static_cast<id_t>(pidfd_.get()), &info, WEXITED | WNOWAIT);
          }) != 0) {
        return MakeSystemCommandError("get process exit code", errno);
      }
      exit_code_ = ExitCodeOf(info);
    }
    exit_code = *exit_code_;
    return CommandResult::Success();
  }

  CommandResult CaptureBaselineProcesses() override { return CollectAliveProcessIds(baseline_); }

  CommandResult CountProcesses(ProcessCounts& counts) override {
    counts = {};
    std::vector<uint32_t> alive;
    CommandResult collected = CollectAliveProcessIds(alive);
    if (!collected.ok) return collected;
    counts.total = static_cast<uint32_t>(alive.size());
    counts.not_in_baseline = static_cast<uint32_t>(std::count_if(alive.begin(), alive.end(), [&](uint32_t id) {
      return std::find(baseline_.begin(), baseline_.end(), id) == baseline_.end();
    }));
    return CommandResult::Success();
  }

  void Terminate() override {
    Signal();
    CloseStdin();
  }

  void Kill() override { Terminate(); }

  uint32_t ProcessId() const override { return pid_ < 0 ? 0 : static_cast<uint32_t>(pid_); }
  std::string SandboxChildId() const override { return {}; }
  bool UsesConpty() const override { return uses_conpty_; }

 private:
  CommandResult StartOnPipes(const ProcessLaunchOptions& options) {
    ScopedFd child_ends[3];
    ScopedFd parent_ends[3];
    for (int i = 0; i < 3; ++i) {
      // The child reads its stdin and writes the other two.
      CommandResult made = i == 0 ? MakePipe(child_ends[i], parent_ends[i], "create child stdio pipes")
                                  : MakePipe(parent_ends[i], child_ends[i], "create child stdio pipes");
      if (!made.ok) return made;
      CommandResult configured = SetNonBlocking(parent_ends[i].get(), "configure shell stdio handle");
      if (!configured.ok) {
        SPDLOG_ERROR("process_launch_failed platform=linux stage=configure_stdio_handle os_error_code={}",
                     configured.error->code);
        return configured;
      }
    }
    PreparedLaunch prepared;
    CommandResult ready = prepared.Prepare(
        options, options.pipe_arguments.empty() ? options.arguments : options.pipe_arguments);
    if (!ready.ok) return ready;
    for (int i = 0; i < 3; ++i) prepared.launch.stdio[i] = child_ends[i].get();
    LaunchedChild child;
    CommandResult launched = LaunchChild(prepared.launch, child);
    if (!launched.ok) return launched;
    Adopt(child);
    stdin_write_ = std::move(parent_ends[0]);
    stdout_read_ = std::move(parent_ends[1]);
    stderr_read_ = std::move(parent_ends[2]);
    return CommandResult::Success();
  }

  void Adopt(LaunchedChild& child) {
    pid_ = child.pid;
    pidfd_ = std::move(child.pidfd);
    exit_code_.reset();
    reaped_ = false;
    containment_ = child.containment;
    if (containment_ != Containment::kProcessGroup) namespace_link_ = ReadPidNamespaceLink(pid_);
  }

  // A pseudo-terminal of 120 x 30 whose input takes CR LF as one line end, the way the text
  // written to it is normalised.
  static CommandResult OpenTerminal(ScopedFd& master, ScopedFd& slave) {
    master.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master.valid() || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0) {
      return MakeSystemCommandError("create ConPTY", errno);
    }
    char name[128];
    if (::ptsname_r(master.get(), name, sizeof(name)) != 0) return MakeSystemCommandError("create ConPTY", errno);
    slave.Reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!slave.valid()) return MakeSystemCommandError("create ConPTY", errno);
    struct winsize size = {};
    size.ws_col = kTerminalColumns;
    size.ws_row = kTerminalRows;
    struct termios modes = {};
    if (::ioctl(slave.get(), TIOCSWINSZ, &size) != 0 || ::tcgetattr(slave.get(), &modes) != 0) {
      return MakeSystemCommandError("create ConPTY", errno);
    }
    modes.c_iflag |= IGNCR;
    if (::tcsetattr(slave.get(), TCSANOW, &modes) != 0) return MakeSystemCommandError("create ConPTY", errno);
    return SetNonBlocking(master.get(), "create ConPTY");
  }

  bool TryStartWithConpty(const ProcessLaunchOptions& options, ConptyTransportStage& stage, std::string& diagnostic) {
    auto fail = [&](ConptyTransportStage at, const CommandResult& result) {
      stage = at;
      diagnostic = result.error->message;
      return false;
    };
    // Nothing to resolve, and no attribute list or job to make: those stages pass as they begin.
    stage = ConptyTransportStage::kCreatePseudoconsole;
    ScopedFd master;
    ScopedFd slave;
    CommandResult opened = OpenTerminal(master, slave);
    if (!opened.ok) return fail(stage, opened);

    PreparedLaunch prepared;
    CommandResult ready = prepared.Prepare(options, options.arguments);
    if (!ready.ok) {
      return fail(options.sandbox ? ConptyTransportStage::kCreateProcess : ConptyTransportStage::kBuildEnvironment,
                  ready);
    }
    for (int& fd : prepared.launch.stdio) fd = slave.get();
    prepared.launch.terminal = true;
    LaunchedChild child;
    CommandResult launched = LaunchChild(prepared.launch, child);
    if (!launched.ok) return fail(ConptyTransportStage::kCreateProcess, launched);
    slave.Reset();

    ConptyProbeStats stats;
    stage = RunReadyProbe(master.get(), child.pidfd.get(), options.ready_probe_command, stats);
    if (stage != ConptyTransportStage::kNone) {
      diagnostic = ConptyProbeDiagnostic(stats, EndProbedChild(child));
      return false;
    }
    Adopt(child);
    stdout_read_.Reset(::fcntl(master.get(), F_DUPFD_CLOEXEC, 0));
    if (!stdout_read_.valid()) {
      const CommandResult duplicated = MakeSystemCommandError("create ConPTY handles", errno);
      diagnostic = duplicated.error->message;
      stage = ConptyTransportStage::kCreatePipes;
      Signal();
      ReapBlocking();
      pid_ = -1;
      return false;
    }
    stdin_write_ = std::move(master);
    uses_conpty_ = true;
    return true;
  }

  // Writes the probe command and reads until the marker has shown and the terminal has been
  // quiet for a moment, or the deadline passes.
  ConptyTransportStage RunReadyProbe(int master, int pidfd, const std::string& command, ConptyProbeStats& stats) {
    if (command.empty()) return ConptyTransportStage::kNone;
    const std::string text = NormalizeConsoleNewlines(command, true);
    const Clock::time_point deadline = Clock::now() + kProbeDeadline;
    if (!WriteBeforeDeadline(master, text, deadline).ok) return ConptyTransportStage::kReadyProbeWrite;
    ConptyProbeOutput output;
    Clock::time_point last_output = Clock::now();
    char buffer[1024];
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (now >= deadline) {
        stats = output.stats();
        return ConptyTransportStage::kReadyProbeTimeout;
      }
      if (output.marker_seen() && now - last_output >= kProbeSilence) return ConptyTransportStage::kNone;
      Clock::time_point until = deadline;
      if (output.marker_seen()) until = std::min(until, last_output + kProbeSilence);
      struct pollfd watch[2] = {{master, POLLIN, 0}, {pidfd, POLLIN, 0}};
      const int ready = RetryOnEintr([&] { return ::poll(watch, 2, MillisecondsUntil(until)); });
      if (ready < 0) {
        stats = output.stats();
        return ConptyTransportStage::kReadyProbeRead;
      }
      if (ready == 0) continue;
      const ssize_t n = RetryOnEintr([&] { return ::read(master, buffer, sizeof(buffer)); });
      if (n < 0 && errno == EAGAIN) {
        if ((watch[1].revents & POLLIN) == 0) continue;
      }
      if (n <= 0) {
        stats = output.stats();
        return ConptyTransportStage::kReadyProbeRead;
      }
      output.Append(std::string_view(buffer, static_cast<size_t>(n)));
      stats = output.stats();
      last_output = Clock::now();
    }
  }

  // Ends a child whose terminal failed its probe and gives its exit code as text.
  static std::string EndProbedChild(LaunchedChild& child) {
    siginfo_t info = {};
    if (::waitid(P_PIDFD, static_cast<id_t>(child.pidfd.get()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid != 0) {
      const std::string code = std::to_string(ExitCodeOf(info));
      (void)RetryOnEintr([&] { return ::waitid(P_PIDFD, static_cast<id_t>(child.pidfd.get()), &info, WEXITED); });
      return code;
    }
    if (PidfdSendSignal(child.pidfd.get(), SIGKILL) != 0) {
      SPDLOG_ERROR("process_cleanup_failed platform=linux stage=terminate_conpty_process process_id={} os_error_code={}",
                   child.pid, errno);
    }
    if (child.containment == Containment::kProcessGroup) (void)::kill(-child.pid, SIGKILL);
    struct pollfd ended = {child.pidfd.get(), POLLIN, 0};
    const int ready = RetryOnEintr([&] { return ::poll(&ended, 1, static_cast<int>(kCleanupWait.count())); });
    if (ready != 1) {
      SPDLOG_ERROR(
          "process_cleanup_failed platform=linux stage=wait_conpty_after_probe process_id={} wait_result={} "
          "os_error_code={}",
          child.pid, ready, ready < 0 ? errno : 0);
    }
    (void)RetryOnEintr([&] { return ::waitid(P_PIDFD, static_cast<id_t>(child.pidfd.get()), &info, WEXITED); });
    return "unavailable";
  }

  // Polls the output and the cancellation event together; never sleeps. A terminal reports its
  // end as EIO once the child's side has closed; the child has written its last bytes when it
  // has exited, so the end is given only after that and one more look.
  CommandResult ReadOutput(int fd, char* buffer, size_t size, OutputRead& out) {
    out = OutputRead{};
    if (fd < 0 || buffer == nullptr || size == 0) {
      out.eof = true;
      return CommandResult::Success();
    }
    bool hung_up = false;
    for (;;) {
      struct pollfd watch[2] = {{fd, POLLIN, 0}, {cancel_.get(), POLLIN, 0}};
      if (RetryOnEintr([&] { return ::poll(watch, 2, -1); }) < 0) {
        return CommandResult::Failure(kCategorySystem, errno, "query process output");
      }
      if (watch[0].revents != 0) {
        const ssize_t n = RetryOnEintr([&] { return ::read(fd, buffer, size); });
        if (n > 0) {
          out.bytes_read = static_cast<uint64_t>(n);
          return CommandResult::Success();
        }
        if (n == 0) {
          out.eof = true;
          return CommandResult::Success();
        }
        if (errno == EAGAIN) continue;
        if (errno != EIO || !uses_conpty_) return CommandResult::Failure(kCategorySystem, errno, "read process output");
        if (hung_up || !AwaitExit()) {
          out.eof = true;
          return CommandResult::Success();
        }
        hung_up = true;
        continue;
      }
      if (watch[1].revents != 0) {
        out.eof = true;
        return CommandResult::Success();
      }
    }
  }

  // Waits until the child has exited or reads are cancelled; true for an exit.
  bool AwaitExit() {
    struct pollfd watch[2] = {{pidfd_.get(), POLLIN, 0}, {cancel_.get(), POLLIN, 0}};
    if (RetryOnEintr([&] { return ::poll(watch, 2, -1); }) < 0) return false;
    return watch[0].revents != 0;
  }

  // SIGKILL to the whole tree, unless the child has been reaped: then its number may belong to
  // a stranger. The namespace's init takes everything in the namespace with it.
  void Signal() {
    std::lock_guard lock(reap_mutex_);
    if (pid_ < 0 || reaped_) return;
    if (containment_ == Containment::kProcessGroup && ::kill(-pid_, SIGKILL) != 0 && errno != ESRCH) {
      SPDLOG_ERROR("process_cleanup_failed platform=linux stage=terminate_group process_id={} os_error_code={}", pid_,
                   errno);
    }
    if (PidfdSendSignal(pidfd_.get(), SIGKILL) != 0 && errno != ESRCH) {
      SPDLOG_ERROR("process_cleanup_failed platform=linux stage=terminate_process process_id={} os_error_code={}",
                   pid_, errno);
    }
  }

  void ReapBlocking() {
    std::lock_guard lock(reap_mutex_);
    if (pid_ < 0 || reaped_) return;
    siginfo_t info = {};
    reaped_ = RetryOnEintr([&] { return ::waitid(P_PIDFD, static_cast<id_t>(pidfd_.get()), &info, WEXITED); }) == 0;
  }

  CommandResult CollectAliveProcessIds(std::vector<uint32_t>& out) {
    out.clear();
    {
      std::lock_guard lock(reap_mutex_);
      if (pid_ < 0 || exit_code_) return CommandResult::Success();
    }
    if (containment_ == Containment::kProcessGroup) return ListProcessGroup(pid_, out);
    return ListPidNamespace(namespace_link_, pid_, out);
  }

  pid_t pid_ = -1;
  ScopedFd pidfd_;
  Containment containment_ = Containment::kProcessGroup;
  std::string namespace_link_;
  std::mutex stdin_mutex_;
  ScopedFd stdin_write_;
  ScopedFd stdout_read_;
  ScopedFd stderr_read_;
  ScopedFd cancel_;
  std::atomic<bool> reads_cancelled_{false};
  bool uses_conpty_ = false;
  std::mutex reap_mutex_;
  std::optional<uint32_t> exit_code_;
  bool reaped_ = false;
  std::vector<uint32_t> baseline_;
};

}  // namespace

std::unique_ptr<INativeProcess> CreateNativeProcess() { return std::make_unique<PosixProcess>(); }

}  // namespace brimo_stack::process_runtime
