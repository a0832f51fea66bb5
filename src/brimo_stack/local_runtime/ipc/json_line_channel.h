// One JSON value per line over the host's standard streams.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "brimo_stack/local_runtime/ipc/host_byte_streams.h"
#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime::ipc {

// A frame is the JSON text and its line feed; the line feed counts.
inline constexpr uint64_t kFrameLimitBytes = 16777216;
inline constexpr uint64_t kMaxJsonTextBytes = kFrameLimitBytes - 1;
// 64 KiB below the frame limit: what the cheap estimate of a response may use.
inline constexpr uint64_t kPayloadBudgetBytes = 0xFF0000;
inline constexpr uint64_t kMaxPayloadDepth = 64;
inline constexpr size_t kReadBufferBytes = 65536;

enum class JsonHostReadStatus : int {
  kValue = 0,
  kEndOfInput = 1,
  kInvalidJson = 2,
  kTooLarge = 3,
  kReadFailed = 4,
};

struct JsonHostReadResult {
  JsonHostReadStatus status = JsonHostReadStatus::kEndOfInput;
  nlohmann::json value;
};

class IJsonLineChannel {
 public:
  virtual ~IJsonLineChannel() = default;
  [[nodiscard]] virtual CommandResult ReadMessage(JsonHostReadResult& out) = 0;
  // A response over the payload budget or the frame limit is refused before any byte of it is
  // written, with FailureReason::kResponseTooLarge; any other failure may have cut a frame short.
  [[nodiscard]] virtual CommandResult WriteMessage(const nlohmann::json& value) = 0;
};

class JsonLineChannel final : public IJsonLineChannel {
 public:
  JsonLineChannel();
  explicit JsonLineChannel(std::unique_ptr<IHostByteStreams> streams);

  CommandResult ReadMessage(JsonHostReadResult& out) override;
  CommandResult WriteMessage(const nlohmann::json& value) override;

 private:
  CommandResult ReadLine(std::string& line, bool& end_of_input, bool& too_large);
  CommandResult WriteAll(const std::string& bytes);

  std::mutex write_mutex_;
  std::unique_ptr<IHostByteStreams> streams_;
  // Bytes read from the pipe behind the last line handed out; a line is cut from here so that
  // a large frame costs a few dozen reads instead of one system call a byte.
  std::vector<char> read_buffer_;
  size_t read_begin_ = 0;
  size_t read_end_ = 0;
};

// Subtracts the estimated serialised size of `value` from `budget`; false once it can't pay or
// the value nests deeper than 64 levels below the root.
[[nodiscard]] bool FitsPayloadBudget(const nlohmann::json& value, uint64_t& budget, uint64_t depth);

}  // namespace brimo_stack::local_runtime::ipc
