// The depth-first walk of file_glob and the scan for one name, on open directory listings.
#include "quay_tools_host/search/glob_walk.h"

#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/search/directory_listing.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// The clock is read in the first pass and in every 256th after it.
constexpr uint64_t kDeadlineCheckMask = 0xFF;

// One open directory of the walk.
struct GlobWalkFrame {
  DirectoryListing listing;
  GlobState state;
  bool subtree_allowed = false;  // its entries need no policy check
  size_t directory_length = 0;   // this directory's text in the walk's path text
  size_t entry_length = 0;       // the entry given last, 0 before the first
};

bool IsPastDeadline(uint64_t& passes, GlobDeadline deadline) {
  return (passes++ & kDeadlineCheckMask) == 0 && std::chrono::steady_clock::now() >= deadline;
}

CommandResult StageFailure(std::string_view stage, std::string_view path_text, const std::error_code& error) {
  return MakeFileErrorForPath(FileErrorKind::kGlobFailed, stage, PathFromUtf8(path_text), error);
}

// The kind an entry is listed as, or false for an entry that is left out. A link is only ever
// listed, never entered, so its policy decision waits until it matches.
bool ListedKind(DirectoryEntryType type, bool matched, const FileAccessPolicy& policy, std::string_view path_text,
                GlobEntryKind& kind) {
  switch (type) {
    case DirectoryEntryType::kRegular:
      kind = GlobEntryKind::kFile;
      return true;
    case DirectoryEntryType::kDirectory:
      kind = GlobEntryKind::kDirectory;
      return true;
    case DirectoryEntryType::kSymlink:
      kind = GlobEntryKind::kSymlink;
      return matched && IsSymlinkAccessAllowed(policy, PathFromUtf8(path_text));
    default:
      return false;
  }
}

// The entry's type, asking the disk only when the listing did not say.
std::error_code EntryType(const DirectoryListing& listing, const DirectoryEntry& entry, DirectoryEntryType& type) {
  type = entry.type;
  return type == DirectoryEntryType::kUnknown ? listing.StatEntry(type) : std::error_code();
}

// The root's text as the head of every entry's text; "/" leaves an empty head, not "//".
std::string RootHead(const std::filesystem::path& root) {
  std::string head = PathToUtf8(root);
  if (!head.empty() && IsPathSeparator(head.back())) head.pop_back();
  return head;
}

}  // namespace

CommandResult GlobTimeoutFailure() {
  return CommandResult::Failure(kCategoryTimeout, 5, "GLOB_TIMEOUT: search exceeded timeout_ms");
}

bool IsSymlinkAccessAllowed(const FileAccessPolicy& policy, const std::filesystem::path& link_path) {
  if (!CheckFileAccess(policy, PathToUtf8(link_path)).ok) return false;
  std::error_code error;
  const std::filesystem::path target = std::filesystem::canonical(link_path, error);
  if (error) return false;
  return CheckFileAccess(policy, PathToUtf8(NormalizeFilePath(target, /*force_long=*/false))).ok;
}

CommandResult WalkGlob(const std::filesystem::path& root, const GlobPattern& pattern, const FileAccessPolicy& policy,
                       GlobDeadline deadline, uint64_t max_depth, GlobResultBuilder& builder) {
  const std::string root_text = PathToUtf8(root);
  // Frames above `height` are kept closed for reuse: a deep walk allocates its buffers once.
  std::vector<GlobWalkFrame> frames(1);
  size_t height = 1;
  if (const std::error_code error = frames[0].listing.OpenRoot(root)) {
    return StageFailure("open search root", root_text, error);
  }
  // Every entry's text is built in this one buffer: its directory's text stays in front.
  std::string path = RootHead(root);
  frames[0].state = pattern.InitialState();
  frames[0].subtree_allowed = IsSubtreeFullyAllowed(policy, root_text);
  frames[0].directory_length = path.size();

  uint64_t passes = 0;
  while (height > 0) {
    if (IsPastDeadline(passes, deadline)) return GlobTimeoutFailure();
    GlobWalkFrame& frame = frames[height - 1];
    DirectoryEntry entry;
    if (const std::error_code error = frame.listing.Next(entry)) {
      if (IsNotFoundErrorCode(error)) {
        frame.listing.Close();
        --height;
        continue;
      }
      // Before its first entry a read failure is the directory's own, as if it had not opened.
      if (frame.entry_length == 0) {
        return height == 1 ? StageFailure("open search root", root_text, error)
                           : StageFailure("open directory entry",
                                          std::string_view(path).substr(0, frame.directory_length), error);
      }
      return StageFailure("traverse directory entry", std::string_view(path).substr(0, frame.entry_length), error);
    }
    if (entry.name.empty()) {
      --height;
      continue;
    }
    path.resize(frame.directory_length);
    path += '/';
    path += entry.name;
    frame.entry_length = path.size();

    GlobStep step = pattern.Advance(frame.state, entry.name);
    if (!step.matched && !step.can_continue) continue;

    bool descend = false;
    if (frame.subtree_allowed || CheckFileAccess(policy, path).ok) {
      DirectoryEntryType type = DirectoryEntryType::kUnknown;
      if (const std::error_code error = EntryType(frame.listing, entry, type)) {
        if (!IsNotFoundErrorCode(error)) return StageFailure("inspect directory entry", path, error);
        continue;  // gone since it was listed
      }
      GlobEntryKind kind = GlobEntryKind::kFile;
      if (ListedKind(type, step.matched, policy, path, kind)) {
        if (step.matched) builder.Add(kind, PathFromUtf8(path));
        descend = kind == GlobEntryKind::kDirectory && step.can_continue && height < max_depth;
      }
    }

    if (descend) {
      const bool child_allowed = frame.subtree_allowed || IsSubtreeFullyAllowed(policy, path);
      if (frames.size() == height) frames.emplace_back();  // `frame` may move: index from here on
      GlobWalkFrame& child = frames[height];
      if (const std::error_code error = child.listing.OpenEntry(frames[height - 1].listing)) {
        // Gone, or no longer a directory: a link swapped in since the listing is never entered.
        if (!IsNotFoundErrorCode(error)) return StageFailure("open directory entry", path, error);
      } else {
        child.state = std::move(step.state);
        child.subtree_allowed = child_allowed;
        child.directory_length = path.size();
        child.entry_length = 0;
        ++height;
      }
    }
    if (builder.IsExhausted()) return CommandResult::Success();
  }
  return CommandResult::Success();
}

CommandResult ScanDirectoryForName(const std::filesystem::path& root, std::string_view name,
                                   const FileAccessPolicy& policy, GlobDeadline deadline, GlobResultBuilder& builder) {
  const std::string root_text = PathToUtf8(root);
  DirectoryListing listing;
  if (const std::error_code error = listing.OpenRoot(root)) return StageFailure("open search root", root_text, error);
  std::string path = RootHead(root);
  const size_t head_length = path.size();
  bool any_entry = false;
  uint64_t passes = 0;
  for (;;) {
    if (IsPastDeadline(passes, deadline)) return GlobTimeoutFailure();
    DirectoryEntry entry;
    if (const std::error_code error = listing.Next(entry)) {
      if (IsNotFoundErrorCode(error)) return CommandResult::Success();
      return any_entry ? StageFailure("traverse directory entry", path, error)
                       : StageFailure("open search root", root_text, error);
    }
    if (entry.name.empty()) return CommandResult::Success();
    any_entry = true;
    path.resize(head_length);
    path += '/';
    path += entry.name;
    if (entry.name != name) continue;

    if (!CheckFileAccess(policy, path).ok) return CommandResult::Success();
    DirectoryEntryType type = DirectoryEntryType::kUnknown;
    if (const std::error_code error = EntryType(listing, entry, type)) {
      return IsNotFoundErrorCode(error) ? CommandResult::Success()
                                        : StageFailure("inspect directory entry", path, error);
    }
    if (type == DirectoryEntryType::kRegular) builder.Add(GlobEntryKind::kFile, PathFromUtf8(path));
    return CommandResult::Success();
  }
}

}  // namespace brimo_stack::quay_tools_host::internal
