// The line filter over rg's output: the decision that the command-line globs only prepare.
#include "quay_tools_host/search/grep_output_filter.h"

#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "brimo_stack_common/path_text.h"
#include "brimo_stack_common/utf8.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// No path that rg prints holds this many ":<digits>:" shapes, and each one tried costs a path
// resolution: a line that would need more is dropped rather than decided.
constexpr size_t kMaxCandidatesPerLine = 32;
// Verdicts kept per output: an output of a few files needs a handful, and one whose every line
// is a new candidate must not hold them all.
constexpr size_t kMaxCachedVerdicts = 65536;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsFieldMark(char c) { return c == ':' || c == '-'; }

// Where the next path candidate of `line` ends, searching from `from`: a ':' or '-', digits,
// then a ':' or '-' before the end of the line. npos when there is none.
size_t NextCandidateEnd(std::string_view line, size_t from) {
  for (size_t i = from; i + 2 < line.size(); ++i) {
    if (!IsFieldMark(line[i]) || !IsDigit(line[i + 1])) continue;
    size_t j = i + 2;
    while (j < line.size() && IsDigit(line[j])) ++j;
    if (j < line.size() && IsFieldMark(line[j])) return i;
    // The digits in between start no candidate; the scan goes on at the byte behind them.
    i = j - 1;
  }
  return std::string_view::npos;
}

enum class Verdict { kUnresolved, kAllowed, kRefused };
enum class LineFate { kNoPath, kKeep, kDrop };

// Decisions for one output. rg prints many lines per file, so each distinct candidate text is
// resolved and decided once; the file system is not asked again within the call.
class CandidateDecider {
 public:
  CandidateDecider(const std::filesystem::path& base, const FileAccessPolicy& policy)
      : base_(base), policy_(policy) {}

  // The first candidate that resolves decides; a line whose candidates all fail goes.
  LineFate Judge(std::string_view line) {
    size_t tried = 0;
    for (size_t end = NextCandidateEnd(line, 0); end != std::string_view::npos;
         end = NextCandidateEnd(line, end + 1)) {
      if (++tried > kMaxCandidatesPerLine) return LineFate::kDrop;
      const Verdict verdict = Decide(line.substr(0, end));
      if (verdict != Verdict::kUnresolved) return verdict == Verdict::kAllowed ? LineFate::kKeep : LineFate::kDrop;
    }
    return tried == 0 ? LineFate::kNoPath : LineFate::kDrop;
  }

 private:
  Verdict Decide(std::string_view candidate) {
    // Such a text names nothing the system can open; a NUL would cut it to another path.
    if (candidate.size() > LongestPathText() || AnyPathHasNul({candidate})) return Verdict::kUnresolved;
    key_.assign(candidate);
    if (const auto found = verdicts_.find(key_); found != verdicts_.end()) return found->second;
    const Verdict verdict = Resolve(candidate);
    if (verdicts_.size() < kMaxCachedVerdicts) verdicts_.emplace(key_, verdict);
    return verdict;
  }

  Verdict Resolve(std::string_view candidate) {
    std::filesystem::path logical = PrepareWidePath(candidate);
    if (!IsFullyQualifiedPath(logical)) logical = base_ / logical;
    logical = NormalizeFilePath(logical, /*force_long=*/false);
    std::filesystem::path real;
    if (!RealPathOf(logical, real)) return Verdict::kUnresolved;
    if (!CheckFileAccess(policy_, PathToUtf8(logical)).ok) return Verdict::kRefused;
    if (!CheckFileAccess(policy_, PathToUtf8(NormalizeFilePath(real, /*force_long=*/false))).ok) {
      return Verdict::kRefused;
    }
    return Verdict::kAllowed;
  }

  // The canonical path, with the directory's part resolved once per directory: the files of one
  // directory then cost one look at the last name each, unless that name is itself a link.
  bool RealPathOf(const std::filesystem::path& logical, std::filesystem::path& real) {
    const std::filesystem::path parent = logical.parent_path();
    const std::filesystem::path name = logical.filename();
    std::error_code error;
    if (parent.empty() || name.empty() || name == "." || name == "..") {
      real = std::filesystem::canonical(logical, error);
      return !error;
    }
    const std::filesystem::path* directory = RealDirectory(parent);
    if (directory == nullptr) return false;
    const std::filesystem::file_status status = std::filesystem::symlink_status(logical, error);
    if (error || !std::filesystem::exists(status)) return false;
    if (std::filesystem::is_symlink(status)) {
      real = std::filesystem::canonical(logical, error);
      return !error;
    }
    real = *directory / name;
    return true;
  }

  // The real path of a directory, or null when it does not resolve to one; nothing below such a
  // directory can resolve either.
  const std::filesystem::path* RealDirectory(const std::filesystem::path& directory) {
    // A fresh start past the cap keeps the memory of one call bounded, whatever it prints.
    if (directories_.size() >= kMaxCachedVerdicts) directories_.clear();
    auto [entry, inserted] = directories_.try_emplace(directory.native());
    if (inserted) {
      std::error_code error;
      std::filesystem::path real = std::filesystem::canonical(directory, error);
      if (!error && std::filesystem::is_directory(real, error) && !error) entry->second = std::move(real);
    }
    return entry->second ? &*entry->second : nullptr;
  }

  const std::filesystem::path& base_;
  const FileAccessPolicy& policy_;
  std::string key_;
  std::unordered_map<std::string, Verdict> verdicts_;
  std::unordered_map<std::string, std::optional<std::filesystem::path>> directories_;
};

// rg prints the paths under the form of `target` it was given; the caller gets them without a
// long-path prefix.
class PrefixRewriter {
 public:
  explicit PrefixRewriter(const std::filesystem::path& target)
      : s1_(PathToUtf8(target)), s2_(WithoutLongPathPrefix(s1_)) {}

  void Append(std::string& out, std::string_view line, std::string_view ending) const {
    if (s1_ != s2_ && line.starts_with(s1_) && BeginsWithTarget(line)) {
      out += s2_;
      line.remove_prefix(s1_.size());
    }
    out += line;
    out += ending;
  }

 private:
  bool BeginsWithTarget(std::string_view line) const {
    if (line.size() == s1_.size() || IsSeparatorByte(s1_.back())) return true;
    const char next = line[s1_.size()];
    return IsSeparatorByte(next) || IsFieldMark(next);
  }

  // Either spelling: the prefixed form is a Win32 text whatever the build.
  static bool IsSeparatorByte(char c) { return c == '\\' || c == '/'; }

  const std::string s1_;
  const std::string s2_;
};

}  // namespace

void TrimToCompleteLines(std::string& text) {
  const size_t last = text.rfind('\n');
  if (last == std::string::npos) {
    text.clear();
    return;
  }
  text.resize(last + 1);
  if (IsValidUtf8(text)) return;
  // A line feed can end no multi-byte sequence, so a text cut behind one is valid exactly when
  // the first ill-formed sequence lies further on.
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const char* at = begin;
  while (at != end) {
    const size_t length = WellFormedUtf8Length(at, end);
    if (length == 0) break;
    at += length;
  }
  const size_t valid = static_cast<size_t>(at - begin);
  const size_t cut = valid == 0 ? std::string::npos : text.rfind('\n', valid - 1);
  if (cut == std::string::npos) {
    text.clear();
  } else {
    text.resize(cut + 1);
  }
}

void FilterGrepOutput(const std::filesystem::path& base, const std::filesystem::path& target,
                      const FileAccessPolicy& policy, std::string& text) {
  CandidateDecider decider(base, policy);
  const PrefixRewriter rewriter(target);
  std::string out;
  out.reserve(text.size());
  const std::string_view all(text);
  size_t start = 0;
  while (start < all.size()) {
    const size_t feed = all.find('\n', start);
    const size_t stop = feed == std::string_view::npos ? all.size() : feed;
    std::string_view line = all.substr(start, stop - start);
    std::string_view ending = all.substr(stop, feed == std::string_view::npos ? 0 : 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
      ending = all.substr(stop - 1, ending.size() + 1);
    }
    start = stop + 1;
    // A dropped line takes its line feed with it.
    switch (decider.Judge(line)) {
      case LineFate::kNoPath:
        out.append(line).append(ending);
        break;
      case LineFate::kKeep:
        rewriter.Append(out, line, ending);
        break;
      case LineFate::kDrop:
        break;
    }
  }
  text = std::move(out);
}

}  // namespace brimo_stack::quay_tools_host::internal
