// rg is a fast way through the tree, never a judge: its paths are decided here on their own,
// through directories held open from the root down, each proved in place again for each path.
#include "quay_tools_host/search/ripgrep_glob_path_verifier.h"

#include <utility>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// The names of a relative path in lexical normal form; false for an absolute path, one that
// climbs above its start, or one with no name left.
bool SplitRelativePath(std::string_view path, std::vector<std::string_view>& names) {
  names.clear();
  if (path.empty() || IsPathSeparator(path.front())) return false;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = begin;
    while (end < path.size() && !IsPathSeparator(path[end])) ++end;
    const std::string_view name = path.substr(begin, end - begin);
    begin = end + 1;
    if (name.empty() || name == ".") continue;
    if (name != "..") {
      names.push_back(name);
    } else if (names.empty() || names.back() == "..") {
      return false;
    } else {
      names.pop_back();
    }
  }
  return !names.empty();
}

std::string JoinNames(const std::vector<std::string_view>& names) {
  std::string text;
  for (const std::string_view name : names) {
    if (!text.empty()) text.push_back('/');
    text += name;
  }
  return text;
}

}  // namespace

RipgrepGlobPathVerifier::RipgrepGlobPathVerifier(const std::filesystem::path& root, FileAccessPolicy policy)
    : root_(NormalizeFilePath(root, false)), root_text_(PathToUtf8(root_)), policy_(std::move(policy)) {
  if (!root_text_.empty() && IsPathSeparator(root_text_.back())) root_text_.pop_back();
}

std::string RipgrepGlobPathVerifier::TextOf(size_t count) const {
  std::string text = root_text_;
  for (size_t i = 0; i < count; ++i) {
    text.push_back('/');
    text += names_[i];
  }
  return text;
}

CommandResult RipgrepGlobPathVerifier::Verify(std::string_view raw_path, const GlobPattern& pattern,
                                              GlobResultBuilder& builder) {
  if (!SplitRelativePath(raw_path, names_)) return CommandResult::Success();
  if (!MatchesPath(pattern, JoinNames(names_))) return CommandResult::Success();
  bool reached = false;
  CommandResult parent = ReachParent(reached);
  if (!parent.ok || !reached) return parent;

  const std::string candidate = TextOf(names_.size());
  if (!CheckFileAccess(policy_, candidate).ok) return CommandResult::Success();
  DirectoryEntryType type = DirectoryEntryType::kUnknown;
  if (const std::error_code error = chain_.TypeOf(names_.back(), type)) {
    if (IsNotFoundErrorCode(error)) return CommandResult::Success();
    return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "inspect ripgrep result", PathFromUtf8(candidate), error);
  }
  if (type == DirectoryEntryType::kRegular) builder.Add(GlobEntryKind::kFile, PathFromUtf8(candidate));
  return CommandResult::Success();
}

CommandResult RipgrepGlobPathVerifier::ReachParent(bool& reached) {
  reached = false;
  const auto root_failure = [this](const std::error_code& error) {
    return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "revalidate ripgrep search root", root_, error);
  };
  if (!root_open_) {
    if (const std::error_code error = chain_.OpenRoot(root_)) {
      return IsNotFoundErrorCode(error) ? CommandResult::Success() : root_failure(error);
    }
    root_open_ = true;
  }
  bool in_place = true;
  if (root_proved_in_read_ != read_) {
    if (const std::error_code error = chain_.RootInPlace(in_place)) {
      return IsNotFoundErrorCode(error) ? CommandResult::Success() : root_failure(error);
    }
    if (!in_place) return CommandResult::Success();
    root_proved_in_read_ = read_;
  }

  // The levels this path shares with the chain are looked at again; the rest are opened.
  const size_t parent_depth = names_.size() - 1;
  size_t shared = 0;
  while (shared < parent_depth && shared < chain_names_.size() && chain_names_[shared] == names_[shared]) ++shared;
  chain_.Truncate(shared);
  chain_names_.resize(shared);
  chain_proved_in_read_.resize(shared);
  for (size_t level = 1; level <= shared; ++level) {
    if (chain_proved_in_read_[level - 1] == read_) continue;
    if (const std::error_code error = chain_.LevelInPlace(level, in_place); error && !IsNotFoundErrorCode(error)) {
      return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "revalidate ripgrep parent directory",
                                  PathFromUtf8(TextOf(level)), error);
    }
    if (!in_place) {
      if (refused_.size() >= kMaxRefusedDirectories) refused_.clear();
      refused_.insert(JoinNames({names_.begin(), names_.begin() + static_cast<std::ptrdiff_t>(level)}));
      chain_.Truncate(level - 1);
      chain_names_.resize(level - 1);
      chain_proved_in_read_.resize(level - 1);
      return CommandResult::Success();
    }
    chain_proved_in_read_[level - 1] = read_;
  }
  for (size_t level = shared + 1; level <= parent_depth; ++level) {
    std::string key = JoinNames({names_.begin(), names_.begin() + static_cast<std::ptrdiff_t>(level)});
    if (refused_.contains(key)) return CommandResult::Success();
    const std::string text = TextOf(level);
    std::error_code error;
    if (CheckFileAccess(policy_, text).ok) error = chain_.Push(names_[level - 1]);
    if (!error && chain_.depth() == level) {
      chain_names_.emplace_back(names_[level - 1]);
      chain_proved_in_read_.push_back(read_);
      continue;
    }
    if (error && !IsNotFoundErrorCode(error) && error != std::errc::not_a_directory) {
      return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "inspect ripgrep parent directory", PathFromUtf8(text),
                                  error);
    }
    if (refused_.size() >= kMaxRefusedDirectories) refused_.clear();
    refused_.insert(std::move(key));
    return CommandResult::Success();
  }
  reached = true;
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
