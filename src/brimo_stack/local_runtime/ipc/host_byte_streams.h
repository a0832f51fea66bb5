// The host's standard input and output as raw byte streams, one implementation per platform.
#pragma once

#include <cstddef>
#include <memory>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime::ipc {

class IHostByteStreams {
 public:
  virtual ~IHostByteStreams() = default;
  // Blocks until at least one byte, end of input (bytes_read 0) or a failure.
  [[nodiscard]] virtual CommandResult Read(char* buffer, size_t capacity, size_t& bytes_read) = 0;
  // Writes some of the bytes; a partial count is normal.
  [[nodiscard]] virtual CommandResult Write(const char* data, size_t size, size_t& bytes_written) = 0;
};

// Standard input and standard output of the process.
[[nodiscard]] std::unique_ptr<IHostByteStreams> MakeStandardHostByteStreams();

}  // namespace brimo_stack::local_runtime::ipc
