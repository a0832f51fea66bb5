// The process runtime next to the plain system calls it stands in for, each in the same run as
// its reference: starting and waiting for /bin/true under each containment against posix_spawn
// (in a plain parent and in one holding 1 GiB and 10,000 inheritable descriptors), reading 1 GiB
// of a child's output against a plain pipe, and ending a tree of 100 processes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "brimo_stack_common/posix/retry_on_eintr.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "process_runtime/native_process.h"
#include "process_runtime/posix/child_launcher.h"
#include "process_runtime/posix/process_table.h"

extern char** environ;

namespace {

namespace pr = brimo_stack::process_runtime;
using brimo_stack::RetryOnEintr;
using brimo_stack::ScopedFd;
using pr::Containment;
using Clock = std::chrono::steady_clock;

constexpr int kStartIterations = 2000;
constexpr int kWarmUpStarts = 20;
constexpr size_t kResidentBytes = size_t{1} << 30;
constexpr int kExtraDescriptors = 10000;
constexpr size_t kReadBytes = size_t{1} << 30;
constexpr int kReadIterations = 7;
constexpr int kTreeIterations = 30;
constexpr uint32_t kTreeSize = 100;
constexpr uint64_t kWaitMs = 10000;

char kTruePath[] = "/bin/true";
char* const kTrueArgv[] = {kTruePath, nullptr};
const char* const kTreeScript = "i=1; while [ $i -lt 100 ]; do sleep 1000 & i=$((i+1)); done; wait";

std::string g_failure;
std::string g_read_source;

double Fail(std::string why) {
  g_failure = std::move(why);
  return -1;
}

double Fail(std::string_view step, const brimo_stack::CommandResult& result) {
  return Fail(std::string(step) + ": " + (result.error ? result.error->message : "failed"));
}

double SecondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

bool Reap(pid_t pid) {
  int status = 0;
  return pid > 0 && RetryOnEintr([&] { return ::waitpid(pid, &status, 0); }) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

// Waits for a child of the runtime; anything but a clean exit is a failure.
double WaitClean(pr::INativeProcess& process) {
  uint32_t code = 1;
  if (auto waited = process.Wait(kWaitMs, code); !waited.ok) return Fail("wait", waited);
  return code == 0 ? 0 : Fail("the child exited with " + std::to_string(code));
}

pr::ProcessLaunchOptions OptionsFor(std::string executable, std::vector<std::string> arguments) {
  pr::ProcessLaunchOptions options;
  options.executable = std::move(executable);
  options.arguments = std::move(arguments);
  options.transport = 0;
  return options;
}

double Percentile(const std::vector<double>& sorted, double fraction) {
  const size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

// Runs `once` `warm_ups` times untimed, then once per iteration; `once` gives the seconds of its
// timed part, or a negative number after a failure. Returns the sorted samples.
std::vector<double> RunTimed(benchmark::State& state, int warm_ups, const std::function<double()>& once) {
  bool warm_up_failed = false;
  for (int i = 0; i < warm_ups && !warm_up_failed; ++i) warm_up_failed = once() < 0;
  std::vector<double> samples;
  for (auto _ : state) {
    const double seconds = warm_up_failed ? -1 : once();
    if (seconds < 0) {
      state.SkipWithError(g_failure.c_str());
      return {};
    }
    state.SetIterationTime(seconds);
    samples.push_back(seconds);
  }
  std::sort(samples.begin(), samples.end());
  state.counters["median_us"] = Percentile(samples, 0.5) * 1e6;
  state.counters["p99_us"] = Percentile(samples, 0.99) * 1e6;
  state.counters["max_us"] = samples.back() * 1e6;
  return samples;
}

// The override falls back to a weaker containment where the machine refuses one, so a child is
// checked for the namespaces asked for before any figure carries the containment's name.
double CheckContainment(Containment containment) {
  auto process = pr::CreateNativeProcess();
  if (auto started = process->Start(OptionsFor("/bin/cat", {})); !started.ok) return Fail("start cat", started);
  auto differs = [&](const std::string& kind) {
    char own[128] = {};
    char theirs[128] = {};
    const std::string child = "/proc/" + std::to_string(process->ProcessId()) + "/ns/" + kind;
    return ::readlink(("/proc/self/ns/" + kind).c_str(), own, sizeof(own) - 1) > 0 &&
           ::readlink(child.c_str(), theirs, sizeof(theirs) - 1) > 0 && std::strcmp(own, theirs) != 0;
  };
  const bool as_asked = differs("pid") == (containment != Containment::kProcessGroup) &&
                        differs("user") == (containment == Containment::kUserAndPidNamespace);
  process->Terminate();
  uint32_t code = 0;
  (void)process->Wait(kWaitMs, code);
  return as_asked ? 0 : Fail("the machine gave a weaker containment than the one asked for");
}

double RuntimeStartAndWait() {
  static const pr::ProcessLaunchOptions options = OptionsFor(kTruePath, {});
  const Clock::time_point begin = Clock::now();
  auto process = pr::CreateNativeProcess();
  if (auto started = process->Start(options); !started.ok) return Fail("start", started);
  if (WaitClean(*process) < 0) return -1;
  process.reset();
  return SecondsSince(begin);
}

// posix_spawnp with `stdio` (-1: the parent's own) on 0/1/2 and, `like_runtime`, the rest of the
// child-side work of the runtime's group road: every other descriptor closed, a group of its own.
pid_t Spawn(char* const* argv, const int (&stdio)[3], bool like_runtime) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  const bool bare = !like_runtime && stdio[0] < 0 && stdio[1] < 0 && stdio[2] < 0;
  for (int i = 0; i < 3; ++i) {
    if (stdio[i] >= 0) ::posix_spawn_file_actions_adddup2(&actions, stdio[i], i);
  }
  if (like_runtime) {
    ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  }
  pid_t pid = -1;
  const int error =
      ::posix_spawnp(&pid, argv[0], bare ? nullptr : &actions, bare ? nullptr : &attributes, argv, environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

// /bin/true bare, or on three O_CLOEXEC pipes the way the runtime gives them.
double SpawnAndWait(bool like_runtime) {
  const Clock::time_point begin = Clock::now();
  ScopedFd ends[3][2];
  int stdio[3] = {-1, -1, -1};
  for (int i = 0; like_runtime && i < 3; ++i) {
    int made[2];
    if (::pipe2(made, O_CLOEXEC) != 0) return Fail("pipe2 failed");
    ends[i][0].Reset(made[0]);
    ends[i][1].Reset(made[1]);
    stdio[i] = made[i == 0 ? 0 : 1];
  }
  if (!Reap(Spawn(kTrueArgv, stdio, like_runtime))) return Fail("posix_spawn or waitpid failed");
  for (auto& pair : ends) {
    for (ScopedFd& end : pair) end.Reset();
  }
  return SecondsSince(begin);
}

// The loaded parent, made once and kept to the end of the program (its runs come last): empty
// when it is ready, else why it is not.
std::string LoadParent() {
  static const std::string failure = []() -> std::string {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return "getrlimit failed";
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < kExtraDescriptors + 64) {
      return "cannot raise RLIMIT_NOFILE above " + std::to_string(kExtraDescriptors + 64);
    }
    const int null_fd = ::open("/dev/null", O_RDWR);
    for (int i = 1; i < kExtraDescriptors; ++i) {
      if (::dup(null_fd) < 0) return std::string("dup: ") + std::strerror(errno);
    }
    // Written so that every page is resident; never freed.
    static char* const resident = static_cast<char*>(std::malloc(kResidentBytes));
    if (resident == nullptr) return "cannot allocate 1 GiB";
    std::memset(resident, 0x5a, kResidentBytes);
    benchmark::DoNotOptimize(resident);
    return {};
  }();
  return failure;
}

bool ReadyParent(benchmark::State& state) {
  const std::string why = state.range(0) == 1 ? LoadParent() : std::string();
  if (!why.empty()) state.SkipWithError(why.c_str());
  return why.empty();
}

void BM_Spawn(benchmark::State& state, bool like_runtime) {
  if (ReadyParent(state)) RunTimed(state, kWarmUpStarts, [&] { return SpawnAndWait(like_runtime); });
}

void BM_RuntimeStart(benchmark::State& state, Containment containment) {
  if (!ReadyParent(state)) return;
  pr::OverrideContainment(containment);
  if (CheckContainment(containment) < 0) {
    state.SkipWithError(g_failure.c_str());
  } else {
    RunTimed(state, kWarmUpStarts, RuntimeStartAndWait);
  }
  pr::OverrideContainment(std::nullopt);
}

// The file every read case has `cat` copy: 1 GiB, written once, so it sits in the page cache,
// and synced, so that its writeback does not run under the timed reads; main removes it.
bool MakeReadSource() {
  if (!g_read_source.empty()) return true;
  const char* dir = std::getenv("QUAY_BENCH_DIR");
  g_read_source = std::string(dir != nullptr ? dir : "/tmp") + "/quay_native_process_bench_" +
                  std::to_string(::getpid());
  ScopedFd file(::open(g_read_source.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const std::vector<char> block(size_t{1} << 20, 'q');
  for (size_t done = 0; file.valid() && done < kReadBytes; done += block.size()) {
    if (::write(file.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size())) return false;
  }
  return file.valid() && ::fsync(file.get()) == 0 && file.Close() == 0;
}

enum class Reader { kRuntime, kPlainPipe, kCatToDevNull };

// Starts `taskset -c <cpu> cat` on the source, takes all it writes, waits for it; the start
// counts, as a caller pays it, but is about a millisecond of the whole.
double ReadOnce(Reader reader, size_t buffer_size, int child_cpu) {
  std::vector<char> buffer(buffer_size);
  std::string cpu = std::to_string(child_cpu);
  uint64_t total = 0;
  const Clock::time_point begin = Clock::now();
  if (reader == Reader::kRuntime) {
    auto process = pr::CreateNativeProcess();
    if (auto started = process->Start(OptionsFor("taskset", {"-c", cpu, "cat", g_read_source})); !started.ok) {
      return Fail("start", started);
    }
    for (pr::OutputRead got; !got.eof; total += got.bytes_read) {
      if (auto read = process->ReadStdout(buffer.data(), buffer.size(), got); !read.ok) return Fail("read", read);
    }
    if (WaitClean(*process) < 0) return -1;
  } else {
    ScopedFd read_end;
    ScopedFd write_end;
    int ends[2];
    if (reader == Reader::kPlainPipe) {
      if (::pipe2(ends, O_CLOEXEC) != 0) return Fail("pipe2 failed");
      read_end.Reset(ends[0]);
      write_end.Reset(ends[1]);
    } else {
      write_end.Reset(::open("/dev/null", O_WRONLY | O_CLOEXEC));
      if (!write_end.valid()) return Fail("cannot open /dev/null");
    }
    char* argv[] = {const_cast<char*>("taskset"), const_cast<char*>("-c"), cpu.data(), const_cast<char*>("cat"),
                    g_read_source.data(), nullptr};
    const pid_t pid = Spawn(argv, {-1, write_end.get(), -1}, false);
    write_end.Reset();
    // Into /dev/null the child copies the whole file by itself.
    total = read_end.valid() ? 0 : kReadBytes;
    while (pid > 0 && read_end.valid()) {
      const ssize_t n = RetryOnEintr([&] { return ::read(read_end.get(), buffer.data(), buffer.size()); });
      if (n <= 0) break;
      total += static_cast<uint64_t>(n);
    }
    if (!Reap(pid)) return Fail("cat failed");
  }
  const double seconds = SecondsSince(begin);
  return total == kReadBytes ? seconds : Fail("read " + std::to_string(total) + " bytes");
}

// The reading thread stays on CPU 0 and the child goes where taskset puts it: a pipe between the
// two CPUs of this machine carries less than half of what it carries on one, and left to the
// scheduler the figure of a run depends on where it happened to place the two.
void BM_Read(benchmark::State& state, Reader reader) {
  const int child_cpu = static_cast<int>(state.range(1));
  cpu_set_t before;
  cpu_set_t reader_cpu;
  CPU_ZERO(&reader_cpu);
  CPU_SET(0, &reader_cpu);
  if (::sched_getaffinity(0, sizeof(before), &before) != 0 || !CPU_ISSET(0, &before) ||
      !CPU_ISSET(child_cpu, &before) || ::sched_setaffinity(0, sizeof(reader_cpu), &reader_cpu) != 0) {
    state.SkipWithError("CPUs 0 and 1 are not both available");
    return;
  }
  std::vector<double> samples;
  if (!MakeReadSource()) {
    state.SkipWithError("cannot write the 1 GiB source file");
  } else {
    samples = RunTimed(state, 1, [&] { return ReadOnce(reader, static_cast<size_t>(state.range(0)) << 10, child_cpu); });
  }
  (void)::sched_setaffinity(0, sizeof(before), &before);
  if (samples.empty()) return;
  state.SetBytesProcessed(static_cast<int64_t>(kReadBytes) * state.iterations());
  state.counters["MB_per_s"] = static_cast<double>(kReadBytes) / Percentile(samples, 0.5) / 1e6;
}

// Starts `sh` with 99 sleeping children, waits until all 100 show, then times Terminate until
// Wait has returned and the last of them is gone. In a group the strays come back to this
// process, a subreaper, and are gone once reaped; a namespace's init reaps them all before it
// ends, so its Wait returning is the end. A scan of /proc afterwards checks either.
double TerminateTree(Containment containment) {
  auto process = pr::CreateNativeProcess();
  if (auto started = process->Start(OptionsFor("/bin/sh", {"-c", kTreeScript})); !started.ok) {
    return Fail("start", started);
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
  for (pr::ProcessCounts counts; counts.total < kTreeSize;) {
    if (auto counted = process->CountProcesses(counts); !counted.ok) return Fail("count", counted);
    if (Clock::now() > deadline) return Fail("the tree never reached 100 processes");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const pid_t child = static_cast<pid_t>(process->ProcessId());
  const std::string namespace_link = pr::ReadPidNamespaceLink(child);

  const Clock::time_point begin = Clock::now();
  process->Terminate();
  uint32_t code = 0;
  if (auto waited = process->Wait(kWaitMs, code); !waited.ok) return Fail("wait", waited);
  while (RetryOnEintr([] { return ::waitpid(-1, nullptr, 0); }) > 0) {
  }
  const double seconds = SecondsSince(begin);

  std::vector<uint32_t> left;
  auto listed = containment == Containment::kProcessGroup ? pr::ListProcessGroup(child, left)
                                                          : pr::ListPidNamespace(namespace_link, 0, left);
  if (!listed.ok) return Fail("list", listed);
  return left.empty() ? seconds : Fail(std::to_string(left.size()) + " processes outlived Terminate");
}

void BM_TerminateTree(benchmark::State& state, Containment containment) {
  pr::OverrideContainment(containment);
  if (CheckContainment(containment) < 0) {
    state.SkipWithError(g_failure.c_str());
  } else {
    RunTimed(state, 0, [&] { return TerminateTree(containment); });
  }
  pr::OverrideContainment(std::nullopt);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // The tree's sleepers outlive their shell in a process group; they must come back here.
  if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) return 1;
  auto register_starts = [](int loaded) {
    auto configure = [loaded](auto* bench) {
      bench->ArgName("loaded")->Arg(loaded)->Iterations(kStartIterations)->UseManualTime()->Unit(benchmark::kMicrosecond);
    };
    configure(benchmark::RegisterBenchmark("BM_PosixSpawnBare", BM_Spawn, false));
    configure(benchmark::RegisterBenchmark("BM_PosixSpawnPipesGroup", BM_Spawn, true));
    configure(benchmark::RegisterBenchmark("BM_RuntimeProcessGroup", BM_RuntimeStart, Containment::kProcessGroup));
    configure(benchmark::RegisterBenchmark("BM_RuntimePidNamespace", BM_RuntimeStart, Containment::kPidNamespace));
    configure(
        benchmark::RegisterBenchmark("BM_RuntimeUserPidNamespace", BM_RuntimeStart, Containment::kUserAndPidNamespace));
  };
  register_starts(0);
  for (const int child_cpu : {0, 1}) {
    for (const auto& [name, reader] : {std::pair{"BM_ReadPlainPipe", Reader::kPlainPipe},
                                       std::pair{"BM_ReadRuntime", Reader::kRuntime}}) {
      benchmark::RegisterBenchmark(name, BM_Read, reader)
          ->ArgNames({"buffer_kib", "child_cpu"})->Args({64, child_cpu})->Args({1024, child_cpu})
          ->Iterations(kReadIterations)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::RegisterBenchmark("BM_CatToDevNull", BM_Read, Reader::kCatToDevNull)
      ->ArgNames({"buffer_kib", "child_cpu"})->Args({64, 0})->Iterations(kReadIterations)->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  for (const Containment containment : {Containment::kProcessGroup, Containment::kPidNamespace}) {
    benchmark::RegisterBenchmark(containment == Containment::kProcessGroup ? "BM_TerminateTreeProcessGroup"
                                                                           : "BM_TerminateTreePidNamespace",
                                 BM_TerminateTree, containment)
        ->Iterations(kTreeIterations)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  // The loaded parent cannot be undone cheaply: its runs come last.
  register_starts(1);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!g_read_source.empty()) ::unlink(g_read_source.c_str());
  return 0;
}
