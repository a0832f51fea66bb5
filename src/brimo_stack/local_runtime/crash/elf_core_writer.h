// ELF core files of another process, written by a crash helper that holds it under ptrace.
#pragma once

#include <cstdint>

namespace brimo_stack::local_runtime {

struct ElfCoreDumpRequest {
  int file = -1;                   // open for writing, empty
  int32_t process_id = 0;          // the crashed process
  int32_t parent_process_id = 0;   // of the crashed process
  int32_t crashing_thread_id = 0;  // its registers come first: debuggers select that thread
  int signal = 0;
  const void* signal_info = nullptr;  // siginfo_t of the fault, readable in this address space
  uint64_t page_size = 4096;
};

// Stops every thread of the process, writes their registers, the process notes and its
// memory to `file`, and lets the threads go. Runs in a helper cloned from a signal handler:
// no heap, no locks, raw system calls only, so the failure is a bool rather than a result
// that would allocate its message.
[[nodiscard]] bool WriteElfCoreDump(const ElfCoreDumpRequest& request);

}  // namespace brimo_stack::local_runtime
