// A program that installs the crash handler and then faults the way a crash dump test asks.
//
// Usage: quay_crash_test_program <mode> <dump_dir> <scenario>
// Prints "initialized=<0|1>" and "dump_path=<variable>" first; "threads=<tid>..." once every
// thread of the worker-fault scenario stands in its named function.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "brimo_stack/local_runtime/crash/self_managed_crash_handler.h"

namespace {

int g_never_written[2] = {-1, -1};
constexpr int kBlockedThreads = 4;  // alpha, beta, gamma and the main thread
std::atomic<int> g_ready{0};
std::atomic<long> g_blocked_tids[kBlockedThreads];
volatile int g_sink = 0;

void WriteOut(std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = ::write(STDOUT_FILENO, text.data(), text.size());
    if (put <= 0) {
      return;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
}

long ThreadId() { return ::syscall(SYS_gettid); }

void BlockForever(int slot) {
  g_blocked_tids[slot] = ThreadId();
  g_ready.fetch_add(1);
  char byte = 0;
  g_sink = static_cast<int>(::read(g_never_written[0], &byte, 1));
}

// True once the thread sits in the kernel inside read(2): its stack is then what the dump must
// show. The kernel's own view, not a flag the thread sets just before it gets there.
bool IsParkedInRead(long tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
  char text[64] = {};
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return false;
  }
  const ssize_t got = ::read(file, text, sizeof(text) - 1);
  ::close(file);
  const std::string expected = std::to_string(SYS_read) + " ";
  return got > 0 && std::string_view(text, static_cast<size_t>(got)).starts_with(expected);
}

void WaitUntilEveryThreadIsParked() {
  while (g_ready.load() < kBlockedThreads) {
    ::usleep(1000);
  }
  // Bounded, so that a kernel without the syscall file still gets its crash, if a flaky one.
  for (int round = 0; round < 10'000; ++round) {
    bool parked = true;
    for (const auto& tid : g_blocked_tids) {
      parked = parked && IsParkedInRead(tid.load());
    }
    if (parked) {
      return;
    }
    ::usleep(1000);
  }
}

[[noreturn]] void WriteThroughNull() {
  volatile int* nowhere = nullptr;
  *nowhere = 1;
  std::abort();
}

}  // namespace

// Plain C names, so a backtrace shows them exactly as the tests spell them.
extern "C" {

void QuayCrashBlockedAlpha() { BlockForever(0); }
void QuayCrashBlockedBeta() { BlockForever(1); }
void QuayCrashBlockedGamma() { BlockForever(2); }

void QuayCrashFaultingWorker() {
  WaitUntilEveryThreadIsParked();
  // The main thread's id is the process id; it stands first, then the other blocked threads.
  std::string line = "threads=" + std::to_string(::getpid());
  for (int slot = 0; slot < 3; ++slot) {
    line += " " + std::to_string(g_blocked_tids[slot].load());
  }
  line += " " + std::to_string(ThreadId()) + "\n";
  WriteOut(line);
  WriteThroughNull();
}

void QuayCrashMainWaiting() { BlockForever(3); }

}  // extern "C"

namespace {

void RunWorkerFault() {
  if (::pipe2(g_never_written, O_CLOEXEC) != 0) {
    std::exit(3);
  }
  std::thread alpha(QuayCrashBlockedAlpha);
  std::thread beta(QuayCrashBlockedBeta);
  std::thread gamma(QuayCrashBlockedGamma);
  std::thread faulting(QuayCrashFaultingWorker);
  QuayCrashMainWaiting();
  faulting.join();
  alpha.join();
  beta.join();
  gamma.join();
}

void TouchTruncatedMapping() {
  const int file = ::memfd_create("quay_crash_bus", MFD_CLOEXEC);
  void* page = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0);
  if (page == MAP_FAILED) {
    std::exit(3);
  }
  g_sink = *static_cast<volatile char*>(page);
}

// Recurses until the stack is gone; only the alternate signal stack lets the handler run.
volatile int g_unreachable_depth = -1;
int OverflowStack(int depth) {
  if (depth == g_unreachable_depth) {
    return 0;
  }
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  return OverflowStack(depth + 1) + frame[0];
}

void DivideByZero() {
  // Not 1 / zero: compilers turn a division of 1 into comparisons that never trap.
  volatile int dividend = 7;
  volatile int zero = 0;
  g_sink = dividend / zero;
}

// Faults in the main thread with the signal named by `name`, the way real code would get it.
void Fault(std::string_view name) {
  if (name == "segv") {
    WriteThroughNull();
  } else if (name == "bus") {
    TouchTruncatedMapping();
  } else if (name == "fpe") {
    DivideByZero();
  } else if (name == "ill") {
    __builtin_trap();
  } else if (name == "abrt") {
    std::abort();
  } else if (name == "sys") {
    std::raise(SIGSYS);
  } else if (name == "overflow") {
    g_sink = OverflowStack(0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    return 2;
  }
  brimo_stack::local_runtime::HostCrashConfig config;
  config.mode = static_cast<uint8_t>(std::atoi(argv[1]));
  config.dump_dir = argv[2];
  const std::string_view scenario = argv[3];

  brimo_stack::local_runtime::SelfManagedCrashHandler handler;
  const bool initialized = handler.Initialize(config, "quay_tools_host");
  const char* path = std::getenv(std::string(brimo_stack::local_runtime::kDumpFileEnvironmentVariable).c_str());
  WriteOut(std::string("initialized=") + (initialized ? "1" : "0") + "\ndump_path=" + (path ? path : "") + "\n");

  if (scenario == "exit") {
    return 0;
  }
  if (scenario == "worker-fault") {
    RunWorkerFault();
    return 0;
  }
  if (scenario == "occupied") {
    // The dump path already taken, as after an earlier crash of the same process.
    const int file = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    WriteOut(::write(file, "occupied", 8) == 8 ? "" : "write failed\n");
    ::close(file);
    Fault("segv");
  }
  if (scenario == "file-limit") {
    // The dump outgrows the file size limit midway, as it would on a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{64 * 1024, 64 * 1024};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Fault("segv");
  }
  Fault(scenario);
  return 0;
}
