// The channel's framing, limits and failures over scripted byte streams.
#include "brimo_stack/local_runtime/ipc/json_line_channel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>

namespace brimo_stack::local_runtime::ipc {
namespace {

// Hands out the scripted chunks one read at a time, then end of input or a failure; records
// what is written, in pieces of at most `write_step` bytes.
class ScriptedStreams final : public IHostByteStreams {
 public:
  std::deque<std::string> chunks;
  int read_error_at_end = 0;
  int write_error = 0;
  bool write_zero = false;
  size_t write_step = SIZE_MAX;
  std::string written;
  int reads = 0;

  CommandResult Read(char* buffer, size_t capacity, size_t& bytes_read) override {
    ++reads;
    bytes_read = 0;
    if (chunks.empty()) {
      return read_error_at_end != 0 ? MakeSystemCommandError("read host IPC request", read_error_at_end)
                                    : CommandResult::Success();
    }
    std::string& front = chunks.front();
    bytes_read = std::min(capacity, front.size());
    front.copy(buffer, bytes_read);
    front.erase(0, bytes_read);
    if (front.empty()) chunks.pop_front();
    return CommandResult::Success();
  }

  CommandResult Write(const char* data, size_t size, size_t& bytes_written) override {
    bytes_written = 0;
    if (write_error != 0) return MakeSystemCommandError("write host IPC response", write_error);
    if (write_zero) return CommandResult::Success();
    bytes_written = std::min(size, write_step);
    written.append(data, bytes_written);
    return CommandResult::Success();
  }
};

struct Fixture {
  ScriptedStreams* streams;
  JsonLineChannel channel;
  explicit Fixture(std::deque<std::string> chunks)
      : streams(new ScriptedStreams()), channel(std::unique_ptr<IHostByteStreams>(streams)) {
    streams->chunks = std::move(chunks);
  }
};

TEST(JsonLineChannelRead, FramesSplitAnywhereReadTheSame) {
  const std::string input = "{\"method\":\"ping\"}\r\n[1,2]\n\"x\"\n";
  for (size_t cut = 1; cut < input.size(); ++cut) {
    Fixture f({input.substr(0, cut), input.substr(cut)});
    JsonHostReadResult out;
    ASSERT_TRUE(f.channel.ReadMessage(out).ok);
    EXPECT_EQ(out.status, JsonHostReadStatus::kValue);
    EXPECT_EQ(out.value, nlohmann::json({{"method", "ping"}})) << "cut " << cut;
    ASSERT_TRUE(f.channel.ReadMessage(out).ok);
    EXPECT_EQ(out.value, nlohmann::json::array({1, 2}));
    ASSERT_TRUE(f.channel.ReadMessage(out).ok);
    EXPECT_EQ(out.value, "x");
    ASSERT_TRUE(f.channel.ReadMessage(out).ok);
    EXPECT_EQ(out.status, JsonHostReadStatus::kEndOfInput);
    EXPECT_TRUE(out.value.is_null());
  }
}

TEST(JsonLineChannelRead, OutcomesOfOddInput) {
  using namespace std::string_literals;
  struct Row {
    std::string input;
    int read_error_at_end;
    JsonHostReadStatus status;
    int category;
    int code;
    const char* message;
  };
  const Row rows[] = {
      {"", 0, JsonHostReadStatus::kEndOfInput, -1, 0, ""},
      {"\n", 0, JsonHostReadStatus::kInvalidJson, 3, 0, "invalid json request"},
      {"\r\n", 0, JsonHostReadStatus::kInvalidJson, 3, 0, "invalid json request"},
      {"{\"a\":1}", 0, JsonHostReadStatus::kReadFailed, 3, 0, "host IPC request ended before newline"},
      {"{\"a\":", EIO, JsonHostReadStatus::kReadFailed, 6, EIO, "read host IPC request failed: Input/output error"},
      // Only one carriage return is the frame's; the other is JSON white space.
      {"{\"a\":1}\r\r\n", 0, JsonHostReadStatus::kValue, -1, 0, ""},
      {"\r{\"a\":1}\n", 0, JsonHostReadStatus::kValue, -1, 0, ""},
      {"[1,]\n", 0, JsonHostReadStatus::kInvalidJson, 3, 0, "invalid json request"},
      {"null\n", 0, JsonHostReadStatus::kValue, -1, 0, ""},
      {"{\"a\":1}\0\r\n"s, 0, JsonHostReadStatus::kInvalidJson, 3, 0, "invalid json request"},
      {"{\"a\":1}\0{\"a\":2}\n"s, 0, JsonHostReadStatus::kInvalidJson, 3, 0, "invalid json request"},
  };
  for (const Row& row : rows) {
    Fixture f({row.input});
    f.streams->read_error_at_end = row.read_error_at_end;
    JsonHostReadResult out;
    const CommandResult result = f.channel.ReadMessage(out);
    EXPECT_EQ(out.status, row.status) << row.input;
    if (row.category < 0) {
      EXPECT_TRUE(result.ok) << row.input;
    } else {
      ASSERT_FALSE(result.ok) << row.input;
      EXPECT_EQ(result.error->category, row.category);
      EXPECT_EQ(result.error->code, row.code);
      EXPECT_EQ(result.error->message, row.message);
    }
  }
}

TEST(JsonLineChannelRead, LimitIsExactAcrossChunkBoundaries) {
  // A line of exactly the limit before its line feed is read, one more byte is not.
  for (const size_t chunk : {size_t{1000003}, size_t{16777215}}) {
    for (const size_t extra : {size_t{0}, size_t{1}}) {
      std::string line(kMaxJsonTextBytes + extra, ' ');
      line.front() = '"';
      line.back() = '"';
      line += "\n{}\n";
      std::deque<std::string> chunks;
      for (size_t i = 0; i < line.size(); i += chunk) chunks.push_back(line.substr(i, chunk));
      Fixture f(std::move(chunks));
      JsonHostReadResult out;
      const CommandResult result = f.channel.ReadMessage(out);
      if (extra == 0) {
        EXPECT_EQ(out.status, JsonHostReadStatus::kValue) << chunk;
        EXPECT_EQ(out.value.get_ref<const std::string&>().size(), kMaxJsonTextBytes - 2);
        ASSERT_TRUE(f.channel.ReadMessage(out).ok);
        EXPECT_EQ(out.value, nlohmann::json::object());
      } else {
        EXPECT_EQ(out.status, JsonHostReadStatus::kTooLarge) << chunk;
        ASSERT_FALSE(result.ok);
        EXPECT_EQ(result.error->message, "request exceeds the 16 MiB IPC frame limit");
      }
    }
  }
}

TEST(JsonLineChannelRead, OversizedLineStopsReadingAtTheLimit) {
  // Nothing far behind the limit is consumed: the refusal doesn't wait for the line feed.
  std::deque<std::string> chunks;
  for (int i = 0; i < 600; ++i) chunks.push_back(std::string(65536, 'x'));
  Fixture f(std::move(chunks));
  JsonHostReadResult out;
  (void)f.channel.ReadMessage(out);
  EXPECT_EQ(out.status, JsonHostReadStatus::kTooLarge);
  // 256 reads of 64 KiB hold one byte more than the limit.
  EXPECT_EQ(f.streams->reads, 256);
}

TEST(JsonLineChannelWrite, FrameIsCompactUtf8WithOneLineFeed) {
  Fixture f({});
  f.streams->write_step = 3;  // partial writes must be continued
  nlohmann::json value = {{"b", "\xC3\xA9"}, {"a", "\xFF"}, {"c", {1, 2}}};
  ASSERT_TRUE(f.channel.WriteMessage(value).ok);
  EXPECT_EQ(f.streams->written, "{\"a\":\"\xEF\xBF\xBD\",\"b\":\"\xC3\xA9\",\"c\":[1,2]}\n");
}

TEST(JsonLineChannelWrite, FailuresAndLimits) {
  struct Row {
    const char* name;
    nlohmann::json value;
    int write_error;
    bool write_zero;
    int category;
    int code;
    std::string message;
    FailureReason reason;
  };
  const std::string quotes(10000000, '"');
  // Only a refusal by size tells the loop that nothing was written and a failure may follow.
  const Row rows[] = {
      {"broken pipe", "x", EPIPE, false, 6, EPIPE, "write host IPC response failed: Broken pipe",
       FailureReason::kUnspecified},
      {"zero bytes", "x", 0, true, 6, EIO, "write host IPC response failed: Input/output error",
       FailureReason::kUnspecified},
      {"budget", std::string(16711679, 'a'), 0, false, 3, 0, "response exceeds the IPC payload budget",
       FailureReason::kResponseTooLarge},
      {"escaped size", quotes, 0, false, 3, 0, "response exceeds the 16 MiB IPC frame limit",
       FailureReason::kResponseTooLarge},
  };
  for (const Row& row : rows) {
    Fixture f({});
    f.streams->write_error = row.write_error;
    f.streams->write_zero = row.write_zero;
    const CommandResult result = f.channel.WriteMessage(row.value);
    ASSERT_FALSE(result.ok) << row.name;
    EXPECT_EQ(result.error->category, row.category) << row.name;
    EXPECT_EQ(result.error->code, row.code) << row.name;
    EXPECT_EQ(result.error->message, row.message) << row.name;
    EXPECT_EQ(result.error->reason, row.reason) << row.name;
    EXPECT_EQ(f.streams->written, "") << row.name;
  }
}

TEST(JsonLineChannelWrite, FrameOfExactlyTheLimitIsWritten) {
  // 16,777,214 bytes of JSON text: a string whose escapes the estimate doesn't see.
  std::string text(16777212 - 5000000, 'a');
  text += std::string(2500000, '\n');  // each becomes two bytes
  Fixture f({});
  ASSERT_TRUE(f.channel.WriteMessage(text).ok);
  EXPECT_EQ(f.streams->written.size(), 16777215u);
  Fixture g({});
  ASSERT_FALSE(g.channel.WriteMessage(text + "\n").ok);
}

nlohmann::json Nested(int levels) {
  nlohmann::json value = 1;
  for (int i = 0; i < levels; ++i) value = nlohmann::json::array({value});
  return value;
}

TEST(FitsPayloadBudget, CostsByType) {
  struct Row {
    const char* name;
    nlohmann::json value;
    uint64_t cost;
  };
  const Row rows[] = {
      {"null", nullptr, 4},
      {"bool", true, 5},
      {"integer", -3, 32},
      {"unsigned", 3u, 32},
      {"float", 1.5, 32},
      {"string", "abc", 5},
      {"array", {1, "x"}, 2 + 1 + 32 + 1 + 3},
      {"object", {{"key", nullptr}}, 2 + 3 + 4 + 4},
      {"binary", nlohmann::json::binary({1, 2, 3}), 4 * 3 + 32},
  };
  for (const Row& row : rows) {
    uint64_t budget = 1000;
    ASSERT_TRUE(FitsPayloadBudget(row.value, budget, 0)) << row.name;
    EXPECT_EQ(1000 - budget, row.cost) << row.name;
    uint64_t exact = row.cost;
    EXPECT_TRUE(FitsPayloadBudget(row.value, exact, 0)) << row.name;
    uint64_t short_by_one = row.cost - 1;
    EXPECT_FALSE(FitsPayloadBudget(row.value, short_by_one, 0)) << row.name;
  }
}

TEST(FitsPayloadBudget, DepthAndStringBoundaries) {
  uint64_t budget = kPayloadBudgetBytes;
  EXPECT_TRUE(FitsPayloadBudget(Nested(64), budget, 0));
  budget = kPayloadBudgetBytes;
  EXPECT_FALSE(FitsPayloadBudget(Nested(65), budget, 0));
  budget = kPayloadBudgetBytes;
  EXPECT_TRUE(FitsPayloadBudget(std::string(16711678, 'a'), budget, 0));
  EXPECT_EQ(budget, 0u);
  budget = kPayloadBudgetBytes;
  EXPECT_FALSE(FitsPayloadBudget(std::string(16711679, 'a'), budget, 0));
}

TEST(FitsPayloadBudget, BinaryNeedsAQuarterOfTheRemainingBudget) {
  // 4 * 10 + 32 = 72 would fit in 79, but 10 bytes are more than a quarter of 39.
  uint64_t budget = 39;
  EXPECT_FALSE(FitsPayloadBudget(nlohmann::json::binary(std::vector<uint8_t>(10)), budget, 0));
  budget = 72;
  EXPECT_TRUE(FitsPayloadBudget(nlohmann::json::binary(std::vector<uint8_t>(10)), budget, 0));
}

}  // namespace
}  // namespace brimo_stack::local_runtime::ipc
