// The fault handler on POSIX: signals on an alternate stack, a ptrace helper that writes the dump.
#include "brimo_stack/local_runtime/crash/self_managed_crash_handler.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "brimo_stack/local_runtime/crash/elf_core_writer.h"
#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"

extern char** environ;

namespace brimo_stack::local_runtime {
namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS};
// Room for the path buffer, the helper's frames and a guard page below.
constexpr size_t kAlternateStackBytes = 256 * 1024;
constexpr size_t kMaxDumpPathBytes = kMaxDumpPathUnits + 1;
// A helper that hangs must not keep a crashed process alive forever.
constexpr int64_t kHelperTimeLimitMs = 30'000;

// The thread that writes the dump; another thread that faults meanwhile waits for the end.
std::atomic<long> g_dumping_thread{0};
uint64_t g_page_size = 4096;

long CurrentThreadId() { return ::syscall(SYS_gettid); }

int64_t MonotonicMilliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

// getenv is not on the async-signal-safe list; the environment array itself is plain memory.
bool CopyDumpPathFromEnvironment(char* out, size_t capacity) {
  const std::string_view name = kDumpFileEnvironmentVariable;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* text = *entry;
    size_t i = 0;
    while (i < name.size() && text[i] == name[i]) {
      ++i;
    }
    if (i != name.size() || text[i] != '=') {
      continue;
    }
    const char* value = text + i + 1;
    size_t length = 0;
    while (value[length] != '\0') {
      if (length + 1 >= capacity) {
        return false;
      }
      out[length] = value[length];
      ++length;
    }
    out[length] = '\0';
    return length > 0;
  }
  return false;
}

void ResetFatalSignalsToDefault() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (const int signal : kFatalSignals) {
    ::sigaction(signal, &action, nullptr);
  }
}

// Ends the process by `signal` with the default action, so the parent sees that death, and
// with no core of the system's own: the limit covers file cores, not dumpable covers pipes.
[[noreturn]] void DieBySignal(int signal) {
  ResetFatalSignalsToDefault();
  const rlimit no_core{0, 0};
  ::setrlimit(RLIMIT_CORE, &no_core);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  ::syscall(SYS_tgkill, ::getpid(), CurrentThreadId(), signal);
  sigset_t unblock;
  sigemptyset(&unblock);
  sigaddset(&unblock, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
  ::_exit(128 + signal);
}

// The two ends of a pipe, each closed by its owner.
struct PipeEnds {
  ScopedFd read;
  ScopedFd write;
  bool Open() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    read.Reset(ends[0]);
    write.Reset(ends[1]);
    return true;
  }
};

// Waits up to the helper's time limit for its one-byte verdict; true for a whole dump.
bool AwaitDumpVerdict(int verdict_fd) {
  const int64_t deadline = MonotonicMilliseconds() + kHelperTimeLimitMs;
  for (int64_t left = kHelperTimeLimitMs; left > 0; left = deadline - MonotonicMilliseconds()) {
    pollfd wait_for{verdict_fd, POLLIN, 0};
    const int ready = ::poll(&wait_for, 1, static_cast<int>(left));
    if (ready > 0) {
      char verdict = 0;
      return RetryOnEintr([&] { return ::read(verdict_fd, &verdict, 1); }) == 1 && verdict == 1;
    }
    // A poll cut short by a signal goes round again with the time that is left; any other
    // failure ends the wait.
    if (ready < 0 && errno != EINTR) {
      return false;
    }
  }
  return false;
}

// Runs the helper that writes the dump into `file`; true when it reports a whole dump.
bool RunDumpHelper(int file, int signal, const siginfo_t* info) {
  PipeEnds go;
  PipeEnds verdict;
  if (!go.Open() || !verdict.Open()) {
    return false;
  }
  ElfCoreDumpRequest request;
  request.file = file;
  request.process_id = static_cast<int32_t>(::getpid());
  request.parent_process_id = static_cast<int32_t>(::getppid());
  request.crashing_thread_id = static_cast<int32_t>(CurrentThreadId());
  request.signal = signal;
  request.signal_info = info;
  request.page_size = g_page_size;

  // A raw clone, not fork: fork runs at-fork handlers and takes libc locks that the crashed
  // thread may hold. The child only makes system calls, so libc's stale thread state is unused.
  const long helper = ::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
  if (helper == 0) {
    ResetFatalSignalsToDefault();
    go.write.Reset();
    verdict.read.Reset();
    char byte = 0;
    if (RetryOnEintr([&] { return ::read(go.read.get(), &byte, 1); }) != 1) {
      ::_exit(2);
    }
    const bool written = WriteElfCoreDump(request);
    if (written) {
      const char ok = 1;
      [[maybe_unused]] const ssize_t sent = ::write(verdict.write.get(), &ok, 1);
    }
    ::_exit(written ? 0 : 1);
  }
  go.read.Reset();
  verdict.write.Reset();
  if (helper < 0) {
    return false;
  }
  // Under Yama's restricted ptrace only a named tracer may attach; the helper waits for this.
  ::prctl(PR_SET_PTRACER, static_cast<unsigned long>(helper), 0, 0, 0);
  const char byte = 1;
  [[maybe_unused]] const ssize_t sent = ::write(go.write.get(), &byte, 1);
  go.write.Reset();

  const bool written = AwaitDumpVerdict(verdict.read.get());
  if (!written) {
    // A helper that hangs must not keep a crashed process alive; one that is done ignores this.
    ::kill(static_cast<pid_t>(helper), SIGKILL);
  }
  int status = 0;
  (void)RetryOnEintr([&] { return ::waitpid(static_cast<pid_t>(helper), &status, 0); });
  return written;
}

void CrashSignalHandler(int signal, siginfo_t* info, void* /*context*/) {
  const long self = CurrentThreadId();
  long expected = 0;
  if (!g_dumping_thread.compare_exchange_strong(expected, self)) {
    if (expected != self) {
      for (;;) {
        ::pause();
      }
    }
    DieBySignal(signal);
  }
  char path[kMaxDumpPathBytes];
  if (CopyDumpPathFromEnvironment(path, sizeof(path))) {
    // O_EXCL: an existing file is never overwritten, so a second crash writes nothing.
    ScopedFd file(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.valid()) {
      const bool written = RunDumpHelper(file.get(), signal, info);
      ::fsync(file.get());
      file.Reset();
      if (!written) {
        ::unlink(path);
      }
    }
  }
  DieBySignal(signal);
}

CommandResult InstallAlternateStack() {
  static void* alternate_stack = nullptr;
  if (alternate_stack != nullptr) {
    return CommandResult::Success();
  }
  void* mapping = ::mmap(nullptr, kAlternateStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) {
    return MakeSystemCommandError("map alternate signal stack", errno);
  }
  // A guard page at the low end turns an overflow of the handler into a fault, not corruption.
  ::mprotect(mapping, static_cast<size_t>(g_page_size), PROT_NONE);
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(mapping) + g_page_size;
  stack.ss_size = kAlternateStackBytes - g_page_size;
  if (::sigaltstack(&stack, nullptr) != 0) {
    const int error = errno;
    ::munmap(mapping, kAlternateStackBytes);
    return MakeSystemCommandError("set alternate signal stack", error);
  }
  alternate_stack = mapping;
  return CommandResult::Success();
}

}  // namespace

CommandResult FillRandomBytes(std::span<uint8_t> out) {
  size_t filled = 0;
  while (filled < out.size()) {
    const ssize_t got = RetryOnEintr([&] { return ::getrandom(out.data() + filled, out.size() - filled, 0); });
    if (got < 0) {
      return MakeSystemCommandError("getrandom", errno);
    }
    filled += static_cast<size_t>(got);
  }
  return CommandResult::Success();
}

CommandResult InstallCrashSignalHandlers() {
  if (const long page_size = ::sysconf(_SC_PAGESIZE); page_size > 0) {
    g_page_size = static_cast<uint64_t>(page_size);
  }
  if (CommandResult stack = InstallAlternateStack(); !stack.ok) {
    return stack;
  }
  struct sigaction action {};
  action.sa_sigaction = CrashSignalHandler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  // A second fault inside the handler then takes the default action instead of nesting.
  sigemptyset(&action.sa_mask);
  for (const int signal : kFatalSignals) {
    sigaddset(&action.sa_mask, signal);
  }
  for (const int signal : kFatalSignals) {
    if (::sigaction(signal, &action, nullptr) != 0) {
      return MakeSystemCommandError("install crash signal handler", errno);
    }
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::local_runtime
