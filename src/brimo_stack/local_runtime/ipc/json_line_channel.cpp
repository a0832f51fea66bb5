// One JSON value per line over the host's standard streams.
#include "brimo_stack/local_runtime/ipc/json_line_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "brimo_stack/local_runtime/ipc/json_frame_parser.h"
#include "brimo_stack_common/large_buffer.h"

namespace brimo_stack::local_runtime::ipc {
namespace {

CommandResult InternalFailure(const char* message) {
  return CommandResult::Failure(kCategoryInternal, 0, message);
}

CommandResult SizeRefusal(const char* message) {
  return CommandResult::Failure(kCategoryInternal, 0, message, FailureReason::kResponseTooLarge);
}

bool Pay(uint64_t& budget, uint64_t cost) {
  if (cost > budget) {
    return false;
  }
  budget -= cost;
  return true;
}

}  // namespace

JsonLineChannel::JsonLineChannel() : JsonLineChannel(MakeStandardHostByteStreams()) {}

JsonLineChannel::JsonLineChannel(std::unique_ptr<IHostByteStreams> streams)
    : streams_(std::move(streams)), read_buffer_(kReadBufferBytes) {}

CommandResult JsonLineChannel::ReadLine(std::string& line, bool& end_of_input, bool& too_large) {
  line.clear();
  end_of_input = false;
  too_large = false;
  for (;;) {
    if (read_begin_ == read_end_) {
      size_t count = 0;
      CommandResult read = streams_->Read(read_buffer_.data(), read_buffer_.size(), count);
      if (!read.ok) {
        return read;
      }
      if (count == 0) {
        if (line.empty()) {
          end_of_input = true;
          return CommandResult::Success();
        }
        return InternalFailure("host IPC request ended before newline");
      }
      read_begin_ = 0;
      read_end_ = count;
    }
    const char* begin = read_buffer_.data() + read_begin_;
    const size_t available = read_end_ - read_begin_;
    const size_t room = kMaxJsonTextBytes - line.size();
    const auto* newline = static_cast<const char*>(std::memchr(begin, '\n', available));
    const size_t before_newline = newline == nullptr ? available : static_cast<size_t>(newline - begin);
    if (before_newline > room) {
      // The byte at the limit is not a line feed: the frame is too large. What follows stays unread.
      too_large = true;
      return CommandResult::Success();
    }
    if (const size_t needed = line.size() + before_newline; needed > line.capacity()) {
      // Doubling keeps the copies of a long frame linear; a large block gets its memory advice.
      ReserveLargeString(line, std::min(std::max(needed, 2 * line.capacity()), static_cast<size_t>(kMaxJsonTextBytes)),
                         needed);
    }
    line.append(begin, before_newline);
    if (newline != nullptr) {
      read_begin_ += before_newline + 1;
      if (!line.empty() && line.back() == '\r') {
        line.pop_back();
      }
      return CommandResult::Success();
    }
    read_begin_ = read_end_;
  }
}

CommandResult JsonLineChannel::ReadMessage(JsonHostReadResult& out) {
  out.status = JsonHostReadStatus::kEndOfInput;
  out.value = nullptr;
  std::string line;
  bool end_of_input = false;
  bool too_large = false;
  CommandResult read = ReadLine(line, end_of_input, too_large);
  if (!read.ok) {
    out.status = JsonHostReadStatus::kReadFailed;
    return read;
  }
  if (end_of_input) {
    out.status = JsonHostReadStatus::kEndOfInput;
    return CommandResult::Success();
  }
  if (too_large) {
    out.status = JsonHostReadStatus::kTooLarge;
    return InternalFailure("request exceeds the 16 MiB IPC frame limit");
  }
  nlohmann::json value;
  if (!ParseJsonFrame(line, value)) {
    out.status = JsonHostReadStatus::kInvalidJson;
    return InternalFailure("invalid json request");
  }
  out.status = JsonHostReadStatus::kValue;
  out.value = std::move(value);
  return CommandResult::Success();
}

CommandResult JsonLineChannel::WriteMessage(const nlohmann::json& value) {
  uint64_t budget = kPayloadBudgetBytes;
  if (!FitsPayloadBudget(value, budget, 0)) {
    return SizeRefusal("response exceeds the IPC payload budget");
  }
  std::string frame = value.dump(-1, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
  frame.push_back('\n');
  if (frame.size() > kFrameLimitBytes) {
    return SizeRefusal("response exceeds the 16 MiB IPC frame limit");
  }
  std::lock_guard<std::mutex> lock(write_mutex_);
  return WriteAll(frame);
}

CommandResult JsonLineChannel::WriteAll(const std::string& bytes) {
  size_t offset = 0;
  while (offset < bytes.size()) {
    size_t written = 0;
    CommandResult write = streams_->Write(bytes.data() + offset, bytes.size() - offset, written);
    if (!write.ok) {
      return write;
    }
    if (written == 0) {
      return MakeSystemCommandError("write host IPC response", EIO);
    }
    offset += written;
  }
  return CommandResult::Success();
}

bool FitsPayloadBudget(const nlohmann::json& value, uint64_t& budget, uint64_t depth) {
  if (depth > kMaxPayloadDepth) {
    return false;
  }
  using Type = nlohmann::json::value_t;
  switch (value.type()) {
    case Type::null:
      return Pay(budget, 4);
    case Type::boolean:
      return Pay(budget, 5);
    case Type::number_integer:
    case Type::number_unsigned:
    case Type::number_float:
      return Pay(budget, 32);
    case Type::string:
      return Pay(budget, value.get_ref<const std::string&>().size() + 2);
    case Type::binary: {
      const uint64_t length = value.get_binary().size();
      if (length > budget / 4) {
        return false;
      }
      return Pay(budget, 4 * length + 32);
    }
    case Type::array:
      if (!Pay(budget, 2)) {
        return false;
      }
      for (const auto& element : value) {
        if (!Pay(budget, 1) || !FitsPayloadBudget(element, budget, depth + 1)) {
          return false;
        }
      }
      return true;
    case Type::object:
      if (!Pay(budget, 2)) {
        return false;
      }
      for (const auto& [key, member] : value.items()) {
        if (!Pay(budget, key.size() + 4) || !FitsPayloadBudget(member, budget, depth + 1)) {
          return false;
        }
      }
      return true;
    default:
      return false;
  }
}

}  // namespace brimo_stack::local_runtime::ipc
