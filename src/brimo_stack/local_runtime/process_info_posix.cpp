// Process facts on POSIX.
#include "brimo_stack/local_runtime/process_info.h"

#include <csignal>
#include <unistd.h>

namespace brimo_stack::local_runtime {

uint64_t CurrentProcessId() { return static_cast<uint64_t>(::getpid()); }

void IgnoreBrokenPipeSignal() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace brimo_stack::local_runtime
