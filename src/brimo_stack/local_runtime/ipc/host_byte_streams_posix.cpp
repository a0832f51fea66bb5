// Standard input and output on descriptors 0 and 1.
#include "brimo_stack/local_runtime/ipc/host_byte_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "brimo_stack_common/posix/retry_on_eintr.h"

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
    const ssize_t count = RetryOnEintr([&] { return ::read(STDIN_FILENO, buffer, capacity); });
    bytes_read = count > 0 ? static_cast<size_t>(count) : 0;
    return count < 0 ? MakeSystemCommandError("read host IPC request", errno) : CommandResult::Success();
  }

  CommandResult Write(const char* data, size_t size, size_t& bytes_written) override {
    const ssize_t count = RetryOnEintr([&] { return ::write(STDOUT_FILENO, data, size); });
    bytes_written = count > 0 ? static_cast<size_t>(count) : 0;
    return count < 0 ? MakeSystemCommandError("write host IPC response", errno) : CommandResult::Success();
  }
};

}  // namespace

std::unique_ptr<IHostByteStreams> MakeStandardHostByteStreams() {
  return std::make_unique<DescriptorHostByteStreams>();
}

}  // namespace brimo_stack::local_runtime::ipc
