// rg is a fast way through the tree, never a judge: its paths are decided here on their own.
#include "quay_tools_host/search/ripgrep_glob_path_verifier.h"

#include <system_error>
#include <utility>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;

// A directory that is itself, not a link to one.
bool IsPlainDirectory(const fs::file_status& status) { return status.type() == fs::file_type::directory; }

}  // namespace

RipgrepGlobPathVerifier::RipgrepGlobPathVerifier(const fs::path& root, FileAccessPolicy policy)
    : root_(NormalizeFilePath(root, false)), policy_(std::move(policy)) {}

CommandResult RipgrepGlobPathVerifier::Verify(std::string_view raw_path, const GlobPattern& pattern,
                                              GlobResultBuilder& builder) {
  const fs::path relative = PrepareWidePath(raw_path).lexically_normal();
  if (relative.empty() || relative == "." || relative.has_root_name() || relative.has_root_directory()) {
    return CommandResult::Success();
  }
  const std::string text = PathToUtf8(relative.generic_string());
  if (text == ".." || text.starts_with("../")) return CommandResult::Success();
  if (!MatchesPath(pattern, text)) return CommandResult::Success();

  fs::path real_parent;
  CommandResult parent = VerifyParent(relative.parent_path(), real_parent);
  if (!parent.ok || real_parent.empty()) return parent;

  const fs::path candidate = NormalizeFilePath((real_parent / relative.filename()).lexically_normal(), false);
  if (!CheckFileAccess(policy_, PathToUtf8(candidate)).ok) return CommandResult::Success();
  std::error_code error;
  const fs::file_status status = fs::symlink_status(candidate, error);
  if (error) {
    if (IsNotFoundErrorCode(error)) return CommandResult::Success();
    return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "inspect ripgrep result", candidate, error);
  }
  if (status.type() == fs::file_type::regular) builder.Add(GlobEntryKind::kFile, candidate);
  return CommandResult::Success();
}

CommandResult RipgrepGlobPathVerifier::VerifyParent(const fs::path& parent, fs::path& real_parent) {
  real_parent.clear();
  std::error_code error;
  const fs::file_status root_status = fs::symlink_status(root_, error);
  if (error && !IsNotFoundErrorCode(error)) {
    return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "revalidate ripgrep search root", root_, error);
  }
  if (error || !IsPlainDirectory(root_status)) return CommandResult::Success();

  fs::path current = root_;
  fs::path key_path;
  for (const fs::path& component : parent) {
    if (component == ".") continue;
    if (component == "..") return CommandResult::Success();
    key_path /= component;
    const std::string key = PathToUtf8(key_path.generic_string());
    if (const auto found = directories_.find(key); found != directories_.end()) {
      VerifiedDirectory& entry = found->second;
      if (!entry.valid) return CommandResult::Success();
      // The directory may have been swapped for a link since it was first proved.
      const fs::file_status status = fs::symlink_status(entry.real_path, error);
      if (error && !IsNotFoundErrorCode(error)) {
        return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "revalidate ripgrep parent directory",
                                    entry.real_path, error);
      }
      if (error || !IsPlainDirectory(status)) {
        entry.valid = false;
        return CommandResult::Success();
      }
      current = entry.real_path;
      continue;
    }
    if (directories_.size() >= kMaxVerifiedDirectories) directories_.clear();
    const fs::path candidate = NormalizeFilePath((current / component).lexically_normal(), false);
    if (!CheckFileAccess(policy_, PathToUtf8(candidate)).ok) {
      directories_.emplace(key, VerifiedDirectory{});
      return CommandResult::Success();
    }
    const fs::file_status status = fs::symlink_status(candidate, error);
    if (error && !IsNotFoundErrorCode(error)) {
      return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "inspect ripgrep parent directory", candidate, error);
    }
    if (error || !IsPlainDirectory(status)) {
      directories_.emplace(key, VerifiedDirectory{});
      return CommandResult::Success();
    }
    directories_.emplace(key, VerifiedDirectory{candidate, true});
    current = candidate;
  }
  real_parent = current;
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
