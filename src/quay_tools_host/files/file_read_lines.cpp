// The line scan and the budgeted line reader behind file_read.
#include "quay_tools_host/files/file_read_lines.h"

#include <algorithm>
#include <cstring>

#include "brimo_stack_common/byte_vector.h"
#include "brimo_stack_common/utf8.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"
#include "quay_tools_host/files/read_line_numbers.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// Each vector compare gives 0 or -1 per lane, subtracted into 8-bit lane counters that are
// folded before they can wrap.
constexpr size_t kVectorBytes = kByteVectorBytes;
constexpr size_t kVectorsPerFold = 255;

// Counts line feeds and tells whether any carriage return is present: the scan may skip a
// whole block only when the block holds no carriage return.
uint64_t CountLineFeeds(const char* data, size_t length, bool& has_carriage_return) {
  uint64_t count = 0;
  ByteVector carriage_returns = {};
  size_t i = 0;
  while (length - i >= kVectorBytes) {
    ByteVector lanes = {};
    const size_t vectors = std::min((length - i) / kVectorBytes, kVectorsPerFold);
    for (size_t v = 0; v < vectors; ++v, i += kVectorBytes) {
      const ByteVector bytes = LoadByteVector(data + i);
      lanes -= reinterpret_cast<ByteVector>(bytes == '\n');
      carriage_returns |= reinterpret_cast<ByteVector>(bytes == '\r');
    }
    for (size_t lane = 0; lane < kVectorBytes; ++lane) count += lanes[lane];
  }
  bool any_carriage_return = false;
  for (size_t lane = 0; lane < kVectorBytes; ++lane) any_carriage_return |= carriage_returns[lane] != 0;
  for (; i < length; ++i) {
    count += data[i] == '\n';
    any_carriage_return |= data[i] == '\r';
  }
  has_carriage_return = any_carriage_return;
  return count;
}

class LineScanner {
 public:
  LineScanner(uint64_t size, uint64_t target_line, LineScanState& state)
      : size_(size), target_(target_line), state_(state) {}

  // Feeds one block that starts at file offset `base`; true once the target is found.
  bool Feed(const char* data, size_t length, uint64_t base) {
    size_t i = 0;
    if (after_carriage_return_) {
      after_carriage_return_ = false;
      if (data[0] == '\n') {
        if (Open(base + 1)) return true;
        i = 1;
      } else if (Open(base)) {
        return true;
      }
    }
    bool has_carriage_return = false;
    const uint64_t feeds = CountLineFeeds(data + i, length - i, has_carriage_return);
    // Every line feed opens a line, except one that ends the file; the target lies further on.
    if (!has_carriage_return && state_.line_count + feeds < target_) {
      state_.line_count += feeds;
      if (length > 0 && data[length - 1] == '\n' && base + length >= size_) --state_.line_count;
      return false;
    }
    return FeedSlowly(data, length, base, i);
  }

 private:
  bool FeedSlowly(const char* data, size_t length, uint64_t base, size_t i) {
    const char* end = data + length;
    const char* next_lf = nullptr;
    const char* next_cr = nullptr;
    bool lf_known = false;
    bool cr_known = false;
    while (i < length) {
      const char* at = data + i;
      if (!lf_known || (next_lf != nullptr && next_lf < at)) {
        next_lf = static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
        lf_known = true;
      }
      if (!cr_known || (next_cr != nullptr && next_cr < at)) {
        next_cr = static_cast<const char*>(std::memchr(at, '\r', static_cast<size_t>(end - at)));
        cr_known = true;
      }
      const char* hit = next_lf == nullptr ? next_cr : (next_cr == nullptr || next_lf < next_cr ? next_lf : next_cr);
      if (hit == nullptr) return false;
      const size_t j = static_cast<size_t>(hit - data);
      if (*hit == '\n') {
        if (Open(base + j + 1)) return true;
        i = j + 1;
      } else if (j + 1 == length) {
        after_carriage_return_ = true;
        return false;
      } else if (data[j + 1] == '\n') {
        if (Open(base + j + 2)) return true;
        i = j + 2;
      } else {
        if (Open(base + j + 1)) return true;
        i = j + 1;
      }
    }
    return false;
  }

  bool Open(uint64_t position) {
    if (position >= size_) return false;
    ++state_.line_count;
    if (state_.line_count != target_) return false;
    state_.found = true;
    state_.position = ReadPosition{position, state_.line_count};
    return true;
  }

  uint64_t size_;
  uint64_t target_;
  LineScanState& state_;
  bool after_carriage_return_ = false;
};

CommandResult NotUtf8(const BufferedFileCursor& cursor) {
  return CommandResult::Failure(kCategoryRefused, 1,
                                "UNSUPPORTED_ENCODING: file is not valid UTF-8: " + PathToUtf8(cursor.file.path));
}

uint64_t CharacterCost(unsigned char lead, int length) {
  return length == 1 ? JsonEscapedByteCost(lead) : static_cast<uint64_t>(length);
}

void Consume(BufferedFileCursor& cursor, ReadLine& line, size_t count, uint64_t cost) {
  line.text.append(cursor.buffer.data() + cursor.consumed, count);
  line.cost += cost;
  cursor.consumed += count;
  cursor.offset += count;
}

}  // namespace

uint64_t JsonEscapedCost(std::string_view text) {
  uint64_t cost = 0;
  for (const char c : text) cost += JsonEscapedByteCost(static_cast<unsigned char>(c));
  return cost;
}

CommandResult FileLineScan(const CachedReadFile& file, uint64_t target_line, LineScanState& state) {
  state = LineScanState{};
  state.line_count = 1;
  if (target_line == 1) {
    state.found = true;
    state.position = ReadPosition{0, 1};
    return CommandResult::Success();
  }
  CommandResult seek = SeekCached(file, 0);
  if (!seek.ok) return seek;
  std::vector<char> block(kFileReadBufferSize);
  LineScanner scanner(file.size, target_line, state);
  for (uint64_t base = 0; base < file.size;) {
    const uint64_t want = std::min<uint64_t>(kFileReadBufferSize, file.size - base);
    uint64_t got = 0;
    CommandResult read = ReadCached(file, block.data(), want, got);
    if (!read.ok) return read;
    if (got != want) {
      return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0,
                           "file line scan ended before its validated snapshot size: " + PathToUtf8(file.path));
    }
    if (scanner.Feed(block.data(), static_cast<size_t>(got), base)) break;
    base += got;
  }
  return CommandResult::Success();
}

CommandResult EnsureBuffered(BufferedFileCursor& cursor, size_t count) {
  if (!cursor.seek_result.ok) {
    return cursor.seek_result;
  }
  while (cursor.unread() < count) {
    if (cursor.offset + cursor.unread() >= cursor.size) return CommandResult::Success();
    const size_t unread = cursor.unread();
    std::memmove(cursor.buffer.data(), cursor.buffer.data() + cursor.consumed, unread);
    cursor.consumed = 0;
    cursor.filled = unread;
    const uint64_t left = cursor.size - (cursor.offset + unread);
    const uint64_t want = std::min<uint64_t>(left, cursor.buffer.size() - unread);
    uint64_t got = 0;
    CommandResult read = ReadCached(cursor.file, cursor.buffer.data() + unread, want, got);
    if (!read.ok) {
      return read;
    }
    if (got == 0 || got < want) {
      return MakeFileError(FileErrorKind::kReadFileFailed, kCategoryInternal, 0,
                           "cached file read ended before its validated snapshot size: " +
                               PathToUtf8(cursor.file.path));
    }
    cursor.filled += static_cast<size_t>(got);
  }
  return CommandResult::Success();
}

CommandResult ReadOneLine(BufferedFileCursor& cursor, uint64_t budget, ReadLine& line) {
  line = ReadLine{};
  line.has_data = cursor.offset < cursor.size;
  if (!line.has_data) return CommandResult::Success();
  size_t terminator = 0;
  while (true) {
    if (CommandResult buffered = EnsureBuffered(cursor, 1); !buffered.ok) return buffered;
    if (cursor.unread() == 0) {
      line.complete = true;
      return CommandResult::Success();
    }
    const auto* data = reinterpret_cast<const unsigned char*>(cursor.buffer.data());
    const unsigned char c = data[cursor.consumed];
    if (c == '\r') {
      if (CommandResult buffered = EnsureBuffered(cursor, 2); !buffered.ok) return buffered;
      data = reinterpret_cast<const unsigned char*>(cursor.buffer.data());
      terminator = cursor.unread() >= 2 && data[cursor.consumed + 1] == '\n' ? 2 : 1;
      break;
    }
    if (c == '\n') {
      terminator = 1;
      break;
    }
    const uint64_t left = budget - line.cost;
    size_t j = cursor.consumed;
    uint64_t run_cost = 0;
    while (j < cursor.filled) {
      const unsigned char b = data[j];
      if (b == '\r' || b == '\n') break;
      const int length = Utf8SequenceLength(b);
      if (length == 0) {
        if (run_cost == left) break;
        return NotUtf8(cursor);
      }
      const uint64_t cost = CharacterCost(b, length);
      if (cost > left - run_cost || j + static_cast<size_t>(length) > cursor.filled) break;
      if (length > 1 &&
          !IsValidUtf8(std::string_view(cursor.buffer.data() + j, static_cast<size_t>(length)))) {
        return NotUtf8(cursor);
      }
      j += static_cast<size_t>(length);
      run_cost += cost;
    }
    if (j > cursor.consumed) {
      Consume(cursor, line, j - cursor.consumed, run_cost);
    } else {
      // Nothing taken: the next character either doesn't fit or straddles the buffer's end.
      const int length = Utf8SequenceLength(c);
      if (length == 0) {
        if (left == 0) return CommandResult::Success();
        return NotUtf8(cursor);
      }
      if (CharacterCost(c, length) > left || cursor.consumed + static_cast<size_t>(length) <= cursor.filled) {
        return CommandResult::Success();
      }
      if (CommandResult buffered = EnsureBuffered(cursor, static_cast<size_t>(length)); !buffered.ok) return buffered;
      if (cursor.unread() < static_cast<size_t>(length)) {
        return NotUtf8(cursor);  // cut off by the end of the file
      }
      if (!IsValidUtf8(std::string_view(cursor.buffer.data() + cursor.consumed, static_cast<size_t>(length)))) {
        return NotUtf8(cursor);
      }
      Consume(cursor, line, static_cast<size_t>(length), static_cast<uint64_t>(length));
    }
    if (cursor.offset >= cursor.size) {
      line.complete = true;
      return CommandResult::Success();
    }
  }
  const uint64_t cost = 2 * terminator;
  if (cost <= budget - line.cost) {
    Consume(cursor, line, terminator, cost);
    line.complete = true;
  }
  return CommandResult::Success();
}

CommandResult ReadLinesFrom(const CachedReadFile& file, const ReadPosition& position, uint64_t size,
                            uint64_t line_limit, std::string& text, bool& truncated) {
  text.clear();
  truncated = false;
  BufferedFileCursor cursor(file);
  cursor.size = size;
  cursor.offset = position.byte_offset;
  cursor.seek_result = SeekCached(file, position.byte_offset);
  uint64_t used = 0;
  uint64_t emitted = 0;
  uint64_t line_number = position.line_number;
  ReadLine line;
  while (cursor.offset < size) {
    if (emitted >= line_limit) break;
    const std::string prefix = FormatReadLineNumber(line_number);
    const uint64_t prefix_cost = JsonEscapedCost(prefix);
    if (prefix_cost >= kFileReadResponseBudget - used) {
      truncated = true;
      break;
    }
    CommandResult read = ReadOneLine(cursor, kFileReadResponseBudget - prefix_cost - used, line);
    if (!read.ok) return read;
    if (!line.has_data || (line.text.empty() && text.empty())) {
      return CommandResult::Failure(kCategoryInternal, 0, "file read made no progress at the response byte limit");
    }
    if (line.text.empty()) break;
    text += prefix;
    text += line.text;
    used += line.cost + prefix_cost;
    ++emitted;
    if (!line.complete) {
      truncated = true;
      break;
    }
    if (cursor.offset < size) ++line_number;
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
