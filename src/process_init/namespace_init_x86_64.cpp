// The first process of a child's own PID namespace. It starts the real child, reaps whatever
// ends up below it and exits with the child's status; its exit makes the kernel kill every
// process left in the namespace, however far it strayed from the child's process group.
//
// Built without the C or C++ runtime so that its start costs one small exec: every call below
// is a raw system call.
//
// argv: init <mode> <path> <argv0> [args...]; mode "g" gives the child a process group of its
// own, "t" a session whose controlling terminal is its standard input. Descriptor 3 is the
// launcher's error pipe: a failed exec writes its errno there.
#include <asm/unistd.h>
#include <linux/sched.h>
#include <asm-generic/fcntl.h>
#include <asm-generic/ioctls.h>

namespace {

long Syscall(long number, long a = 0, long b = 0, long c = 0, long d = 0) {
  long result;
  register long r10 __asm__("r10") = d;
  __asm__ volatile("syscall"
                   : "=a"(result)
                   : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10)
                   : "rcx", "r11", "memory");
  return result;
}

constexpr long kErrorFd = 3;
constexpr long kEintr = 4;

[[noreturn]] void ExitGroup(long code) {
  for (;;) Syscall(__NR_exit_group, code);
}

}  // namespace

extern "C" [[noreturn]] void InitMain(long* stack) {
  const long argc = stack[0];
  char** argv = reinterpret_cast<char**>(stack + 1);
  char** envp = argv + argc + 1;
  if (argc < 4) ExitGroup(126);
  const bool terminal = argv[1][0] == 't';

  Syscall(__NR_fcntl, kErrorFd, F_SETFD, FD_CLOEXEC);
  const long child = Syscall(__NR_fork);
  if (child == 0) {
    if (terminal) {
      Syscall(__NR_setsid);
      Syscall(__NR_ioctl, 0, TIOCSCTTY, 0);
    } else {
      Syscall(__NR_setpgid, 0, 0);
    }
    const long failed = Syscall(__NR_execve, reinterpret_cast<long>(argv[2]), reinterpret_cast<long>(argv + 3),
                                reinterpret_cast<long>(envp));
    const int error = static_cast<int>(-failed);
    Syscall(__NR_write, kErrorFd, reinterpret_cast<long>(&error), sizeof(error));
    ExitGroup(127);
  }
  if (child < 0) {
    const int error = static_cast<int>(-child);
    Syscall(__NR_write, kErrorFd, reinterpret_cast<long>(&error), sizeof(error));
    ExitGroup(127);
  }
  // Only the child holds the standard descriptors now, so its output ends when it and its
  // descendants close them, as it would without this process.
  for (long fd = 0; fd <= kErrorFd; ++fd) Syscall(__NR_close, fd);

  for (;;) {
    int status = 0;
    const long reaped = Syscall(__NR_wait4, -1, reinterpret_cast<long>(&status), 0, 0);
    if (reaped == -kEintr) continue;
    if (reaped < 0) ExitGroup(126);
    if (reaped == child) {
      const int signal = status & 0x7f;
      ExitGroup(signal == 0 ? (status >> 8) & 0xff : 128 + signal);
    }
  }
}

__asm__(
    ".text\n"
    ".globl _start\n"
    "_start:\n"
    "  mov %rsp, %rdi\n"
    "  and $-16, %rsp\n"
    "  call InitMain\n"
    "  hlt\n");
