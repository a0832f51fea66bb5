// Starting /bin/true and waiting for it, by each way Linux offers: fork, vfork, clone with a
// shared address space, and posix_spawn, in a plain parent and in one holding 1 GiB resident and
// 10,000 inheritable descriptors. Each iteration is timed on its own; median and p99 are counters.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr int kIterations = 2000;
constexpr int kWarmUpStarts = 20;
constexpr size_t kResidentBytes = size_t{1} << 30;
constexpr int kExtraDescriptors = 10000;
constexpr size_t kCloneStackBytes = size_t{256} << 10;

char kTruePath[] = "/bin/true";
char* const kTrueArgv[] = {kTruePath, nullptr};

// What the child needs, all prepared before it exists: a child sharing the parent's memory may
// not allocate.
struct ChildPlan {
  std::array<int, 3> stdio{-1, -1, -1};
};

// Only async-signal-safe calls: after vfork or clone(CLONE_VM) this runs on the parent's memory.
// close_range goes through syscall() so it builds on a libc without the wrapper.
[[noreturn]] void RunChild(const ChildPlan& plan) noexcept {
  for (int target = 0; target < 3; ++target) {
    if (::dup2(plan.stdio[target], target) < 0) ::_exit(127);
  }
  if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0) ::_exit(127);
  if (::setpgid(0, 0) != 0) ::_exit(127);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) ::_exit(127);
  ::execve(kTruePath, kTrueArgv, environ);
  ::_exit(127);
}

int CloneEntry(void* plan) { RunChild(*static_cast<const ChildPlan*>(plan)); }

// The three pipes of one start; the parent's ends stay, the child's ends go after the start.
// All are O_CLOEXEC, as a runtime's would be: dup2 onto 0/1/2 clears the flag on the copies.
struct StdioPipes {
  std::array<int, 2> in{-1, -1};
  std::array<int, 2> out{-1, -1};
  std::array<int, 2> err{-1, -1};

  bool Open() {
    return ::pipe2(in.data(), O_CLOEXEC) == 0 && ::pipe2(out.data(), O_CLOEXEC) == 0 &&
           ::pipe2(err.data(), O_CLOEXEC) == 0;
  }
  ChildPlan Plan() const { return ChildPlan{{in[0], out[1], err[1]}}; }
  void CloseChildEnds() {
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
  }
  void CloseParentEnds() {
    ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
  }
};

bool Reap(pid_t pid) {
  int status = 0;
  pid_t got;
  do {
    got = ::waitpid(pid, &status, 0);
  } while (got < 0 && errno == EINTR);
  return got == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

pid_t StartByFork(const ChildPlan& plan) {
  const pid_t pid = ::fork();
  if (pid == 0) RunChild(plan);
  return pid;
}

pid_t StartByVfork(const ChildPlan& plan) {
  const pid_t pid = ::vfork();
  if (pid == 0) RunChild(plan);
  return pid;
}

// One stack for every clone child: CLONE_VFORK holds the parent until the child has exec'd or
// exited, so two children never use it at once.
char* CloneStackTop() {
  static char* top = [] {
    void* base = ::mmap(nullptr, kCloneStackBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (base == MAP_FAILED) std::abort();
    return static_cast<char*>(base) + kCloneStackBytes;
  }();
  return top;
}

pid_t StartByClone(const ChildPlan& plan) {
  ChildPlan copy = plan;
  return ::clone(CloneEntry, CloneStackTop(), CLONE_VM | CLONE_VFORK | SIGCHLD, &copy);
}

pid_t StartBySpawnWithPipes(const ChildPlan& plan) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attr);
  for (int target = 0; target < 3; ++target) {
    ::posix_spawn_file_actions_adddup2(&actions, plan.stdio[target], target);
  }
  ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  ::posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  ::posix_spawnattr_setpgroup(&attr, 0);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, kTruePath, &actions, &attr, kTrueArgv, environ);
  ::posix_spawnattr_destroy(&attr);
  ::posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

pid_t StartBySpawnBare() {
  pid_t pid = -1;
  return ::posix_spawn(&pid, kTruePath, nullptr, nullptr, kTrueArgv, environ) == 0 ? pid : -1;
}

// The loaded parent, made once and kept to the end of the program: the loaded runs are
// registered after all plain ones.
bool LoadParent(std::string& why) {
  static bool loaded = false;
  static std::string failure;
  if (loaded || !failure.empty()) {
    why = failure;
    return loaded;
  }
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) failure = "getrlimit failed";
  limit.rlim_cur = limit.rlim_max;
  if (failure.empty() && ::setrlimit(RLIMIT_NOFILE, &limit) != 0) failure = "setrlimit failed";
  if (failure.empty() && limit.rlim_cur < kExtraDescriptors + 64) {
    failure = "RLIMIT_NOFILE hard limit below " + std::to_string(kExtraDescriptors + 64);
  }
  const int null_fd = failure.empty() ? ::open("/dev/null", O_RDWR) : -1;
  if (failure.empty() && null_fd < 0) failure = "cannot open /dev/null";
  for (int i = 1; failure.empty() && i < kExtraDescriptors; ++i) {
    if (::dup(null_fd) < 0) failure = std::string("dup: ") + std::strerror(errno);
  }
  if (failure.empty()) {
    // Touched so every page is resident; held in a static so it stays for the loaded runs.
    static char* resident = static_cast<char*>(std::malloc(kResidentBytes));
    if (resident == nullptr) {
      failure = "cannot allocate 1 GiB";
    } else {
      std::memset(resident, 0x5a, kResidentBytes);
      benchmark::DoNotOptimize(resident);
    }
  }
  loaded = failure.empty();
  why = failure;
  return loaded;
}

enum class Way { kFork, kVfork, kClone, kSpawnWithPipes, kSpawnBare };

pid_t Start(Way way, const ChildPlan& plan) {
  switch (way) {
    case Way::kFork: return StartByFork(plan);
    case Way::kVfork: return StartByVfork(plan);
    case Way::kClone: return StartByClone(plan);
    case Way::kSpawnWithPipes: return StartBySpawnWithPipes(plan);
    case Way::kSpawnBare: return StartBySpawnBare();
  }
  return -1;
}

// One start and wait; the pipes' creation and closing count, as a runtime pays them per child.
bool StartAndWait(Way way) {
  if (way == Way::kSpawnBare) {
    const pid_t pid = StartBySpawnBare();
    return pid > 0 && Reap(pid);
  }
  StdioPipes pipes;
  if (!pipes.Open()) return false;
  const pid_t pid = Start(way, pipes.Plan());
  pipes.CloseChildEnds();
  const bool ok = pid > 0 && Reap(pid);
  pipes.CloseParentEnds();
  return ok;
}

double Percentile(std::vector<double>& sorted_samples, double fraction) {
  const size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted_samples.size())));
  return sorted_samples[std::clamp<size_t>(rank, 1, sorted_samples.size()) - 1];
}

void BM_StartChild(benchmark::State& state, Way way) {
  const bool loaded = state.range(0) == 1;
  std::string why;
  if (loaded && !LoadParent(why)) {
    state.SkipWithError(why.c_str());
    return;
  }
  for (int i = 0; i < kWarmUpStarts; ++i) {
    if (!StartAndWait(way)) {
      state.SkipWithError("start or wait failed");
      return;
    }
  }
  std::vector<double> samples;
  samples.reserve(kIterations);
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    const bool ok = StartAndWait(way);
    const auto end = std::chrono::steady_clock::now();
    if (!ok) {
      state.SkipWithError("start or wait failed");
      return;
    }
    const double seconds = std::chrono::duration<double>(end - begin).count();
    state.SetIterationTime(seconds);
    samples.push_back(seconds * 1e6);
  }
  std::sort(samples.begin(), samples.end());
  state.counters["median_us"] = Percentile(samples, 0.5);
  state.counters["p99_us"] = Percentile(samples, 0.99);
  state.counters["max_us"] = samples.back();
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const std::array<std::pair<const char*, Way>, 5> ways{{
      {"BM_ForkExec", Way::kFork},
      {"BM_VforkExec", Way::kVfork},
      {"BM_CloneVmVforkExec", Way::kClone},
      {"BM_PosixSpawnPipes", Way::kSpawnWithPipes},
      {"BM_PosixSpawnBare", Way::kSpawnBare},
  }};
  // Plain first: the loaded parent cannot be undone cheaply, so it comes last.
  for (int loaded = 0; loaded <= 1; ++loaded) {
    for (const auto& [name, way] : ways) {
      benchmark::RegisterBenchmark(name, BM_StartChild, way)
          ->ArgName("loaded")
          ->Arg(loaded)
          ->Iterations(kIterations)
          ->UseManualTime()
          ->Unit(benchmark::kMicrosecond);
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
