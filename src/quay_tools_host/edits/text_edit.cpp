// The exact-bytes search and replace of file_edit.
#include "quay_tools_host/edits/text_edit.h"

#include <cstring>

#include "brimo_stack_common/byte_vector.h"
#include "brimo_stack_common/large_buffer.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// The bytes between the first and the last, which the vector filter has already compared.
bool SameMiddle(const char* candidate, std::string_view needle) {
  const size_t middle = needle.size() - 2;
  if (middle > 16) {
    return std::memcmp(candidate + 1, needle.data() + 1, middle) == 0;
  }
  // Short needles are the common case and cheaper compared here than through a library call.
  for (size_t i = 1; i <= middle; ++i) {
    if (candidate[i] != needle[i]) return false;
  }
  return true;
}

CommandResult NotFound() {
  return MakeFileMutationError(FileMutationErrorKind::kOldStringNotFound, "old_content not found");
}

// Whole numbers only: count * growth could overflow where this division cannot.
bool GrowsPastLimit(size_t text_size, size_t old_size, size_t new_size, uint64_t count) {
  if (new_size <= old_size) {
    return false;
  }
  const uint64_t growth = new_size - old_size;
  const uint64_t room = text_size >= kEditableFileLimit ? 0 : kEditableFileLimit - text_size;
  return count > room / growth;
}

// Every match replaced in one pass: the write position never passes the read position.
uint64_t ReplaceAllInPlace(std::string& text, std::string_view old_text, std::string_view new_text) {
  char* data = text.data();
  size_t read = 0;
  size_t write = 0;
  uint64_t count = 0;
  for (size_t at = FindExactText(text, old_text, 0); at != std::string::npos;
       at = FindExactText(text, old_text, at + old_text.size())) {
    if (write != read) {
      std::memmove(data + write, data + read, at - read);
    }
    write += at - read;
    std::memcpy(data + write, new_text.data(), new_text.size());
    write += new_text.size();
    read = at + old_text.size();
    ++count;
  }
  if (write != read) {
    std::memmove(data + write, data + read, text.size() - read);
    text.resize(write + (text.size() - read));
  }
  return count;
}

std::string ReplaceAllGrowing(const std::string& text, std::string_view old_text, std::string_view new_text,
                              uint64_t count) {
  std::string edited;
  ReserveLargeString(edited, text.size() + count * (new_text.size() - old_text.size()));
  size_t copied = 0;
  for (size_t at = FindExactText(text, old_text, 0); at != std::string::npos;
       at = FindExactText(text, old_text, at + old_text.size())) {
    edited.append(text, copied, at - copied);
    edited.append(new_text);
    copied = at + old_text.size();
  }
  edited.append(text, copied, std::string::npos);
  return edited;
}

}  // namespace

size_t FindExactText(std::string_view text, std::string_view needle, size_t from) {
  const size_t length = needle.size();
  if (length == 0 || text.size() < length || from > text.size() - length) {
    return std::string_view::npos;
  }
  const char* data = text.data();
  if (length == 1) {
    const void* hit = std::memchr(data + from, needle[0], text.size() - from);
    return hit == nullptr ? std::string_view::npos : static_cast<size_t>(static_cast<const char*>(hit) - data);
  }
  // Sixteen candidate starts a step: a start is looked at only when its first and last bytes
  // both match, which rules out nearly every position of ordinary text.
  const size_t last_start = text.size() - length;
  const ByteVector first = BroadcastByte(needle.front());
  const ByteVector last = BroadcastByte(needle.back());
  size_t at = from;
  for (; at <= last_start && last_start - at >= kByteVectorBytes - 1; at += kByteVectorBytes) {
    const ByteVector hits = reinterpret_cast<ByteVector>(LoadByteVector(data + at) == first) &
                            reinterpret_cast<ByteVector>(LoadByteVector(data + at + length - 1) == last);
    for (uint32_t mask = LaneMask(hits); mask != 0; mask &= mask - 1) {
      const size_t start = at + static_cast<size_t>(__builtin_ctz(mask));
      if (SameMiddle(data + start, needle)) {
        return start;
      }
    }
  }
  for (; at <= last_start; ++at) {
    if (data[at] == needle.front() && std::memcmp(data + at + 1, needle.data() + 1, length - 1) == 0) {
      return at;
    }
  }
  return std::string_view::npos;
}

uint64_t CountMatches(std::string_view text, std::string_view needle) {
  uint64_t count = 0;
  for (size_t at = FindExactText(text, needle, 0); at != std::string_view::npos;
       at = FindExactText(text, needle, at + needle.size())) {
    ++count;
  }
  return count;
}

CommandResult ReplaceExactText(std::string& text, std::string_view old_text, std::string_view new_text,
                               bool replace_all, uint64_t& replacements) {
  replacements = 0;
  if (!replace_all) {
    const size_t at = FindExactText(text, old_text, 0);
    if (at == std::string::npos) {
      return NotFound();
    }
    if (FindExactText(text, old_text, at + old_text.size()) != std::string::npos) {
      return MakeFileMutationError(FileMutationErrorKind::kOldStringNotUnique, "old_content appears more than once");
    }
    if (GrowsPastLimit(text.size(), old_text.size(), new_text.size(), 1)) {
      return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0, "edited file exceeds 67108864 bytes");
    }
    text.replace(at, old_text.size(), new_text);
    replacements = 1;
    return CommandResult::Success();
  }
  if (new_text.size() <= old_text.size()) {
    // Nothing is written before the first match, so a text without one is left as it was.
    replacements = ReplaceAllInPlace(text, old_text, new_text);
    return replacements == 0 ? NotFound() : CommandResult::Success();
  }
  const uint64_t count = CountMatches(text, old_text);
  if (count == 0) {
    return NotFound();
  }
  if (GrowsPastLimit(text.size(), old_text.size(), new_text.size(), count)) {
    return MakeFileError(FileErrorKind::kFileTooLarge, kCategoryRefused, 0, "edited file exceeds 67108864 bytes");
  }
  text = ReplaceAllGrowing(text, old_text, new_text, count);
  replacements = count;
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
