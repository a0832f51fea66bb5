// One open directory read entry by entry, and its child directories opened through it: the
// road down of a walk, which never resolves a name that could have become a link since it was
// listed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

namespace brimo_stack::quay_tools_host::internal {

enum class DirectoryEntryType : uint8_t { kUnknown = 0, kRegular = 1, kDirectory = 2, kSymlink = 3, kOther = 4 };

struct DirectoryEntry {
  // Valid until the next call of Next on the same listing; empty at the end of the directory.
  std::string_view name;
  // kUnknown when the listing itself does not say; StatEntry asks the disk then.
  DirectoryEntryType type = DirectoryEntryType::kUnknown;
};

// Holds one open directory and a fixed read buffer, whatever the directory's size: a walk's
// memory grows with its depth, not with the entries it passes. Reopening a listing reuses
// its buffer.
class DirectoryListing {
 public:
  DirectoryListing();
  ~DirectoryListing();
  DirectoryListing(DirectoryListing&& other) noexcept;
  DirectoryListing& operator=(DirectoryListing&& other) noexcept;
  DirectoryListing(const DirectoryListing&) = delete;
  DirectoryListing& operator=(const DirectoryListing&) = delete;

  // Opens `directory`, a real path, with no link followed on the way. A directory that denies
  // access lists as empty.
  [[nodiscard]] std::error_code OpenRoot(const std::filesystem::path& directory);
  // Opens the entry that `parent` gave last, from the parent's own handle, as a directory and
  // without following a link: an entry that is no longer a directory (a link swapped in since
  // it was listed) is std::errc::not_a_directory. A directory that denies access lists as empty.
  [[nodiscard]] std::error_code OpenEntry(const DirectoryListing& parent);
  // The next entry other than "." and ".."; an empty name at the end.
  [[nodiscard]] std::error_code Next(DirectoryEntry& entry);
  // The type of the entry Next gave last, from the disk, a link not followed.
  [[nodiscard]] std::error_code StatEntry(DirectoryEntryType& type) const;
  void Close();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace brimo_stack::quay_tools_host::internal
