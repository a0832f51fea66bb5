// Standard input and output on descriptors 0 and 1; interrupted calls are retried.
#include "brimo_stack/local_runtime/ipc/host_byte_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace brimo_stack::local_runtime::ipc {
namespace {

// A 16 MiB frame through a default 64 KiB pipe takes 256 hand-offs between the processes, each
// a scheduler wake-up; a 1 MiB pipe takes 16. Not a pipe, or a lower system limit: left as is.
constexpr int kPreferredPipeBytes = 1 << 20;

class DescriptorHostByteStreams final : public IHostByteStreams {
 public:
  DescriptorHostByteStreams() {
    ::fcntl(STDIN_FILENO, F_SETPIPE_SZ, kPreferredPipeBytes);
    ::fcntl(STDOUT_FILENO, F_SETPIPE_SZ, kPreferredPipeBytes);
  }

  CommandResult Read(char* buffer, size_t capacity, size_t& bytes_read) override {
    bytes_read = 0;
    for (;;) {
      const ssize_t count = ::read(STDIN_FILENO, buffer, capacity);
      if (count >= 0) {
        bytes_read = static_cast<size_t>(count);
        return CommandResult::Success();
      }
      const int error = errno;
      if (error != EINTR) {
        return MakeSystemCommandError("read host IPC request", error);
      }
    }
  }

  CommandResult Write(const char* data, size_t size, size_t& bytes_written) override {
    bytes_written = 0;
    for (;;) {
      const ssize_t count = ::write(STDOUT_FILENO, data, size);
      if (count >= 0) {
        bytes_written = static_cast<size_t>(count);
        return CommandResult::Success();
      }
      const int error = errno;
      if (error != EINTR) {
        return MakeSystemCommandError("write host IPC response", error);
      }
    }
  }
};

}  // namespace

std::unique_ptr<IHostByteStreams> MakeStandardHostByteStreams() {
  return std::make_unique<DescriptorHostByteStreams>();
}

}  // namespace brimo_stack::local_runtime::ipc
