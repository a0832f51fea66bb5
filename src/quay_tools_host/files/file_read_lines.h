// The line scan and the budgeted line reader behind file_read.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack/local_runtime/ipc/json_line_channel.h"
#include "brimo_stack_common/command_result.h"
#include "quay_tools_host/files/file_read_primitives.h"

namespace brimo_stack::quay_tools_host::internal {

// What the channel's payload estimate charges for the answer around a read's content:
// {"ok":true,"outputs":[{"data":{"content":""},"type":"json"}]}, the empty content included.
inline constexpr uint64_t kFileReadEnvelopeCost = 66;
// The escaped content of one read: the payload budget of a frame less the answer around it,
// so that the largest read answer still fits its frame.
inline constexpr uint64_t kFileReadResponseBudget = local_runtime::ipc::kPayloadBudgetBytes - kFileReadEnvelopeCost;
inline constexpr uint64_t kFileReadBufferSize = 65536;

// Bytes one input byte takes inside a JSON string: 2 for the short escapes, 6 for other
// control characters, 1 otherwise.
[[nodiscard]] constexpr uint64_t JsonEscapedByteCost(unsigned char byte) {
  switch (byte) {
    case '\b': case '\t': case '\n': case '\f': case '\r': case '"': case '\\': return 2;
    default: return byte < 0x20 ? 6 : 1;
  }
}
[[nodiscard]] uint64_t JsonEscapedCost(std::string_view text);

struct ReadPosition {
  uint64_t byte_offset = 0;
  uint64_t line_number = 1;
};

struct LineScanState {
  uint64_t line_count = 0;
  bool found = false;
  ReadPosition position;
};

// A reader over a CachedReadFile that never reads past the file's snapshot size.
struct BufferedFileCursor {
  explicit BufferedFileCursor(const CachedReadFile& file) : file(file), size(file.size), buffer(kFileReadBufferSize) {}

  [[nodiscard]] size_t unread() const { return filled - consumed; }

  const CachedReadFile& file;
  uint64_t offset = 0;  // file offset of buffer[consumed]
  uint64_t size = 0;
  std::vector<char> buffer;
  size_t consumed = 0;
  size_t filled = 0;
  CommandResult seek_result;
};

struct ReadLine {
  std::string text;  // terminator included
  uint64_t cost = 0;  // JSON-escaped size of `text`
  bool has_data = false;
  bool complete = false;
};

// Finds where line `target_line` (from 1) starts; line ends are LF, CR LF and a lone CR.
[[nodiscard]] CommandResult FileLineScan(const CachedReadFile& file, uint64_t target_line, LineScanState& state);

// Up to `line_limit` numbered lines from `position`; `truncated` when the budget ran out.
[[nodiscard]] CommandResult ReadLinesFrom(const CachedReadFile& file, const ReadPosition& position, uint64_t size,
                                          uint64_t line_limit, std::string& text, bool& truncated);

// One line, validated a character at a time and cut at a character boundary by `budget`.
[[nodiscard]] CommandResult ReadOneLine(BufferedFileCursor& cursor, uint64_t budget, ReadLine& line);

// Buffers `count` unread bytes, or as many as the file has left before its snapshot size: the
// caller tells the two apart by `cursor.unread()`. A failure is a failed or short read.
[[nodiscard]] CommandResult EnsureBuffered(BufferedFileCursor& cursor, size_t count);

}  // namespace brimo_stack::quay_tools_host::internal
