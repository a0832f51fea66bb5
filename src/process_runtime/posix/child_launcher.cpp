#include "process_runtime/posix/child_launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>

#include "brimo_stack_common/posix/retry_on_eintr.h"

extern const unsigned char kNamespaceInitImage[];
extern const size_t kNamespaceInitImage_size;

namespace brimo_stack::process_runtime {
namespace {

constexpr std::string_view kLaunchStage = "create shell process";
constexpr size_t kChildStackBytes = 64 * 1024;

// What the child half reads: plain data made before the clone, so that the child allocates
// nothing and takes no lock while it shares the host's memory.
struct ChildPlan {
  const char* path = nullptr;
  char* const* argv = nullptr;
  char* const* envp = nullptr;
  const char* cwd = nullptr;
  int stdio[3] = {-1, -1, -1};
  bool terminal = false;
  int error_fd = -1;
  int lifeline_read = -1;
  int lifeline_write = -1;
  unsigned int descriptor_limit = 0;
  Containment containment = Containment::kProcessGroup;
  int init_fd = -1;
  char* const* init_argv = nullptr;
  const char* uid_map = nullptr;
  const char* gid_map = nullptr;
};

// What the child half reports before it dies: whether the namespace road itself failed (the
// launch may then go again without it) and the errno.
struct ChildFailure {
  int namespace_road = 0;
  int error = 0;
};

// The child half runs in the host's memory on a stack of its own until it execs, so it makes
// raw system calls only, and the sanitizers must not instrument it.
__attribute__((no_sanitize("address", "undefined"))) [[noreturn]] void FailChild(const ChildPlan& plan,
                                                                               int namespace_road) {
  const ChildFailure failure{namespace_road, errno};
  syscall(SYS_write, plan.error_fd, &failure, sizeof(failure));
  syscall(SYS_exit_group, 127);
  __builtin_unreachable();
}

__attribute__((no_sanitize("address", "undefined"))) bool WriteProcFile(const char* path, const char* text) {
  const long fd = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const size_t length = __builtin_strlen(text);
  const bool written = syscall(SYS_write, fd, text, length) == static_cast<long>(length);
  syscall(SYS_close, fd);
  return written;
}

__attribute__((no_sanitize("address", "undefined"))) int ChildMain(void* argument) {
  const ChildPlan& plan = *static_cast<const ChildPlan*>(argument);
  const bool in_namespace = plan.containment != Containment::kProcessGroup;

  // The host may have died before the death signal was armed: then the lifeline, whose write
  // end only the host holds, has hung up.
  syscall(SYS_close, plan.lifeline_write);
  syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  struct pollfd lifeline = {plan.lifeline_read, POLLIN, 0};
  if (syscall(SYS_poll, &lifeline, 1, 0) != 0) syscall(SYS_exit_group, 127);

  if (plan.containment == Containment::kUserAndPidNamespace &&
      (!WriteProcFile("/proc/self/setgroups", "deny") || !WriteProcFile("/proc/self/uid_map", plan.uid_map) ||
       !WriteProcFile("/proc/self/gid_map", plan.gid_map))) {
    FailChild(plan, 1);
  }

  // Move every source above the targets first, so that no dup lands on a source not yet used.
  constexpr int kSources = 5;
  const int sources[kSources] = {plan.stdio[0], plan.stdio[1], plan.stdio[2], plan.error_fd,
                                 in_namespace ? plan.init_fd : plan.error_fd};
  int moved[kSources];
  for (int i = 0; i < kSources; ++i) {
    moved[i] = static_cast<int>(syscall(SYS_fcntl, sources[i], F_DUPFD_CLOEXEC, kSources));
    if (moved[i] < 0) FailChild(plan, 0);
  }
  ChildPlan reporting = plan;
  reporting.error_fd = moved[3];
  for (int target = 0; target < 3; ++target) {
    if (syscall(SYS_dup3, moved[target], target, 0) < 0) FailChild(reporting, 0);
  }
  // The init reports a failed exec of the program on descriptor 3; the program itself must not
  // inherit the pipe.
  if (syscall(SYS_dup3, moved[3], 3, in_namespace ? 0 : O_CLOEXEC) < 0) FailChild(reporting, 0);
  reporting.error_fd = 3;
  int keep_below = 4;
  if (in_namespace) {
    if (syscall(SYS_dup3, moved[4], 4, O_CLOEXEC) < 0) FailChild(reporting, 1);
    keep_below = 5;
  }
  if (syscall(SYS_close_range, keep_below, ~0U, 0) != 0) {
    for (unsigned int fd = static_cast<unsigned int>(keep_below); fd < plan.descriptor_limit; ++fd) {
      syscall(SYS_close, fd);
    }
  }

  // Default dispositions before the mask opens, so that no handler of the host ever runs here.
  struct {
    void* handler;
    unsigned long flags;
    void* restorer;
    unsigned long mask;
  } default_action = {reinterpret_cast<void*>(SIG_DFL), 0, nullptr, 0};
  for (int signal = 1; signal < 65; ++signal) {
    syscall(SYS_rt_sigaction, signal, &default_action, nullptr, sizeof(unsigned long));
  }
  const unsigned long empty_mask = 0;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &empty_mask, nullptr, sizeof(unsigned long));

  if (!in_namespace) {
    if (plan.terminal) {
      if (syscall(SYS_setsid) < 0 || syscall(SYS_ioctl, 0, TIOCSCTTY, 0) < 0) FailChild(reporting, 0);
    } else if (syscall(SYS_setpgid, 0, 0) < 0) {
      FailChild(reporting, 0);
    }
  }
  if (plan.cwd != nullptr && syscall(SYS_chdir, plan.cwd) < 0) FailChild(reporting, 0);

  if (in_namespace) {
    syscall(SYS_execveat, 4, "", plan.init_argv, plan.envp, AT_EMPTY_PATH);
    FailChild(reporting, 1);
  }
  syscall(SYS_execve, plan.path, plan.argv, plan.envp);
  FailChild(reporting, 0);
}

std::vector<char*> PointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The one thread that starts children. The death signal of a child follows the thread that
// made it, so a request thread that ends must not be that thread; this one ends with the host.
class Launcher {
 public:
  static Launcher& Get() {
    static Launcher* const launcher = new Launcher();
    return *launcher;
  }

  // Runs the clone on the launcher thread; the child has exec'd or died when this returns.
  pid_t Clone(ChildPlan& plan, int clone_flags, int& pidfd, int& clone_error) {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [&] { return job_ == nullptr; });
    Job job{&plan, clone_flags};
    job_ = &job;
    wake_.notify_all();
    idle_.wait(lock, [&] { return job.done; });
    pidfd = job.pidfd;
    clone_error = job.error;
    return job.pid;
  }

  int lifeline_read() const { return lifeline_[0]; }
  int lifeline_write() const { return lifeline_[1]; }
  int init_fd() const { return init_fd_.get(); }

 private:
  struct Job {
    ChildPlan* plan;
    int flags;
    pid_t pid = -1;
    int pidfd = -1;
    int error = 0;
    bool done = false;
  };

  Launcher() {
    if (::pipe2(lifeline_, O_CLOEXEC) != 0) lifeline_[0] = lifeline_[1] = -1;
    stack_ = ::mmap(nullptr, kChildStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    LoadInitImage();
    std::thread([this] { Run(); }).detach();
  }

  // The init program as an executable memory file; without it children run in a group only.
  void LoadInitImage() {
    if (kNamespaceInitImage_size == 0) return;
    constexpr unsigned int kMemfdExec = 0x10;  // newer kernels refuse to exec a memfd without it
    int fd = ::memfd_create("quay-namespace-init", MFD_CLOEXEC | MFD_ALLOW_SEALING | kMemfdExec);
    if (fd < 0 && errno == EINVAL) fd = ::memfd_create("quay-namespace-init", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return;
    ScopedFd image(fd);
    size_t written = 0;
    while (written < kNamespaceInitImage_size) {
      const ssize_t n = RetryOnEintr(
          [&] { return ::write(image.get(), kNamespaceInitImage + written, kNamespaceInitImage_size - written); });
      if (n <= 0) return;
      written += static_cast<size_t>(n);
    }
    (void)::fcntl(image.get(), F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
    init_fd_ = std::move(image);
  }

  void Run() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [&] { return job_ != nullptr; });
      Job& job = *job_;
      if (stack_ == MAP_FAILED) {
        job.error = ENOMEM;
      } else {
        int pidfd = -1;
        job.pid = ::clone(ChildMain, static_cast<char*>(stack_) + kChildStackBytes,
                          job.flags | CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, job.plan, &pidfd);
        job.error = job.pid < 0 ? errno : 0;
        job.pidfd = pidfd;
      }
      job.done = true;
      job_ = nullptr;
      idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  Job* job_ = nullptr;
  int lifeline_[2] = {-1, -1};
  void* stack_ = MAP_FAILED;
  ScopedFd init_fd_;
};

constexpr int kUndetected = -1;
std::atomic<int> g_detected{kUndetected};
std::atomic<int> g_override{kUndetected};

int CloneFlagsFor(Containment containment) {
  switch (containment) {
    case Containment::kPidNamespace:
      return CLONE_NEWPID;
    case Containment::kUserAndPidNamespace:
      return CLONE_NEWUSER | CLONE_NEWPID;
    case Containment::kProcessGroup:
      break;
  }
  return 0;
}

// Whether a failure to enter a namespace says this machine does not allow it, rather than that
// this one launch went wrong.
bool NamespaceRefused(int error) {
  return error == EPERM || error == EINVAL || error == ENOSPC || error == EUSERS || error == EACCES ||
         error == ENOSYS || error == ENOEXEC;
}

std::optional<Containment> NextWeaker(Containment containment) {
  if (containment == Containment::kPidNamespace) return Containment::kUserAndPidNamespace;
  if (containment == Containment::kUserAndPidNamespace) return Containment::kProcessGroup;
  return std::nullopt;
}

// One attempt under one containment. `namespace_refused` tells the caller to go weaker.
CommandResult LaunchOnce(const ChildLaunch& launch, Containment containment, LaunchedChild& out,
                         bool& namespace_refused) {
  namespace_refused = false;
  Launcher& launcher = Launcher::Get();
  if (containment != Containment::kProcessGroup && launcher.init_fd() < 0) {
    namespace_refused = true;
    return MakeSystemCommandError(kLaunchStage, ENOEXEC);
  }
  int error_pipe[2];
  if (::pipe2(error_pipe, O_CLOEXEC) != 0) return MakeSystemCommandError(kLaunchStage, errno);
  ScopedFd error_read(error_pipe[0]);
  ScopedFd error_write(error_pipe[1]);

  std::vector<std::string> argv = launch.argv;
  std::vector<std::string> envp = launch.envp;
  std::vector<char*> argv_pointers = PointersTo(argv);
  std::vector<char*> envp_pointers = PointersTo(envp);
  std::vector<std::string> init_argv = {"quay-init", launch.terminal ? "t" : "g", launch.path};
  init_argv.insert(init_argv.end(), argv.begin(), argv.end());
  std::vector<char*> init_argv_pointers = PointersTo(init_argv);
  const std::string uid_map = std::to_string(::geteuid()) + " " + std::to_string(::geteuid()) + " 1";
  const std::string gid_map = std::to_string(::getegid()) + " " + std::to_string(::getegid()) + " 1";
  struct rlimit limit = {};
  const bool has_limit = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;

  ChildPlan plan;
  plan.path = launch.path.c_str();
  plan.argv = argv_pointers.data();
  plan.envp = envp_pointers.data();
  plan.cwd = launch.cwd.empty() ? nullptr : launch.cwd.c_str();
  for (int i = 0; i < 3; ++i) plan.stdio[i] = launch.stdio[i];
  plan.terminal = launch.terminal;
  plan.error_fd = error_write.get();
  plan.lifeline_read = launcher.lifeline_read();
  plan.lifeline_write = launcher.lifeline_write();
  plan.descriptor_limit = has_limit ? static_cast<unsigned int>(limit.rlim_cur) : 65536;
  plan.containment = containment;
  plan.init_fd = launcher.init_fd();
  plan.init_argv = init_argv_pointers.data();
  plan.uid_map = uid_map.c_str();
  plan.gid_map = gid_map.c_str();

  int pidfd = -1;
  int clone_error = 0;
  const pid_t pid = launcher.Clone(plan, CloneFlagsFor(containment), pidfd, clone_error);
  error_write.Reset();
  if (pid < 0) {
    namespace_refused = containment != Containment::kProcessGroup && NamespaceRefused(clone_error);
    return MakeSystemCommandError(kLaunchStage, clone_error);
  }
  ScopedFd pidfd_owner(pidfd);

  // End of file on the error pipe means the program runs; anything else is why it does not.
  // The child half writes a ChildFailure; the init writes the errno of the program's exec.
  char report[sizeof(ChildFailure)] = {};
  size_t got = 0;
  for (;;) {
    const ssize_t n = RetryOnEintr([&] { return ::read(error_read.get(), report + got, sizeof(report) - got); });
    if (n <= 0 || (got += static_cast<size_t>(n)) == sizeof(report)) break;
  }
  if (got == 0) {
    out.pid = pid;
    out.pidfd = std::move(pidfd_owner);
    out.containment = containment;
    return CommandResult::Success();
  }
  siginfo_t info = {};
  (void)RetryOnEintr([&] { return ::waitid(P_PIDFD, static_cast<id_t>(pidfd_owner.get()), &info, WEXITED); });
  int error = 0;
  if (got == sizeof(ChildFailure)) {
    ChildFailure failure;
    std::memcpy(&failure, report, sizeof(failure));
    namespace_refused = failure.namespace_road != 0 && NamespaceRefused(failure.error);
    error = failure.error;
  } else {
    std::memcpy(&error, report, sizeof(error));
  }
  return MakeSystemCommandError(kLaunchStage, error);
}

}  // namespace

Containment CurrentContainment() {
  const int forced = g_override.load();
  if (forced != kUndetected) return static_cast<Containment>(forced);
  const int detected = g_detected.load();
  if (detected != kUndetected) return static_cast<Containment>(detected);
  return Launcher::Get().init_fd() >= 0 ? Containment::kPidNamespace : Containment::kProcessGroup;
}

void OverrideContainment(std::optional<Containment> containment) {
  g_override.store(containment ? static_cast<int>(*containment) : kUndetected);
}

CommandResult LaunchChild(const ChildLaunch& launch, LaunchedChild& out) {
  Containment containment = CurrentContainment();
  for (;;) {
    bool namespace_refused = false;
    CommandResult result = LaunchOnce(launch, containment, out, namespace_refused);
    if (result.ok || !namespace_refused) {
      if (result.ok && g_override.load() == kUndetected) g_detected.store(static_cast<int>(containment));
      return result;
    }
    const std::optional<Containment> weaker = NextWeaker(containment);
    if (!weaker) return result;
    containment = *weaker;
  }
}

}  // namespace brimo_stack::process_runtime
