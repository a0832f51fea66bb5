// The blacklist as rg exclusion globs, and the whitelist test that a search root lies wholly
// inside one "<dir>/*" pattern.
#include "quay_tools_host/search/grep_policy_filters.h"

#include <algorithm>
#include <optional>
#include <set>
#include <tuple>

#include "brimo_stack_common/ascii_text.h"
#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

// The segments of a path in the policy's spelling of the platform: where '\' is a byte of a
// name, as on POSIX, it stays inside its segment, so the globs name what the policy decides.
std::vector<std::string> SplitSegments(std::string_view text) {
  const std::string generic = NormalizePathForPolicy(text, /*case_sensitive=*/true);
  std::vector<std::string> segments;
  size_t start = 0;
  for (size_t i = 0; i <= generic.size(); ++i) {
    if (i == generic.size() || IsPathSeparator(generic[i])) {
      if (i > start) segments.push_back(generic.substr(start, i - start));
      start = i + 1;
    }
  }
  return segments;
}

// "**" counts too: a policy star crosses levels, so only a lone "*" has a glob spelling.
bool HasPartialWildcard(std::string_view segment) {
  return segment.find('?') != std::string_view::npos ||
         (segment.find('*') != std::string_view::npos && segment != "*");
}

bool SameSegment(std::string_view a, std::string_view b, bool case_sensitive) {
  return case_sensitive ? a == b : ToLowerAscii(a) == ToLowerAscii(b);
}

// The glob, relative to `root`, of what the pattern excludes below it; none when the pattern
// cannot be written as one or does not reach below the root.
std::optional<std::string> TranslateBlacklistPattern(std::string_view root, std::string_view pattern,
                                                     bool case_sensitive) {
  const std::vector<std::string> r = SplitSegments(root);
  const std::vector<std::string> p = SplitSegments(pattern);
  if (p.empty()) return std::nullopt;
  size_t i = 0;
  for (; i < p.size() && i < r.size(); ++i) {
    if (HasPartialWildcard(p[i])) return std::nullopt;
    if (p[i] == "*") break;
    if (!SameSegment(p[i], r[i], case_sensitive)) return std::nullopt;
  }
  // A pattern at or above the root is the line filter's to carry.
  if (i == p.size()) return std::nullopt;
  // The leading '/' ties the glob to the search root: rg tries a glob without one on names at
  // any depth. A star that meets the root's own segments may take their rest and no level more,
  // so it is "**"; one behind them spans one level at least, as "*/**" does, except at the end.
  std::string glob;
  for (size_t k = i; k < p.size(); ++k) {
    if (HasPartialWildcard(p[k])) return std::nullopt;
    glob += '/';
    if (p[k] != "*") {
      glob += EscapeGlobLiteral(p[k]);
    } else {
      glob += (k == i && i < r.size()) || k + 1 == p.size() ? "**" : "*/**";
    }
  }
  return glob;
}

bool PatternCoversRoot(std::string_view pattern, std::string_view normalized_root, bool case_sensitive) {
  const size_t n = pattern.size();
  if (n < 2 || pattern[n - 1] != '*' || !IsPathSeparator(pattern[n - 2])) return false;
  const std::string_view head = pattern.substr(0, n - 2);
  if (head.find_first_of("*?") != std::string_view::npos) return false;
  const std::string h = NormalizePathForPolicy(head, case_sensitive);
  if (normalized_root == h) return true;
  return normalized_root.size() > h.size() && normalized_root.starts_with(h) &&
         IsPathSeparator(normalized_root[h.size()]);
}

}  // namespace

bool PolicyGlobFilter::operator<(const PolicyGlobFilter& other) const {
  return std::tie(case_sensitive, glob) < std::tie(other.case_sensitive, other.glob);
}

CommandResult AppendPolicyGlobFilters(const std::filesystem::path& root, const FileAccessPolicyConfig& policy,
                                      std::vector<std::string>& arguments) {
  const std::string root_text = PathToUtf8(root);
  const std::string normalized_root = NormalizePathForPolicy(root_text, policy.case_sensitive);
  const FileAccessPolicy compiled = CompileFileAccessPolicy(policy, /*for_write=*/false);
  // What an allow pattern reopens inside a blacklisted entry, where rg may meet it, would stay
  // hidden behind the entry's glob.
  const auto reopened_here = [&](const PolicyPattern& deny) {
    return std::any_of(compiled.allow.begin(), compiled.allow.end(), [&](const PolicyPattern& allow) {
      const std::string_view opened = allow.has_directory_prefix ? allow.directory_prefix : allow.normalized;
      return Overrides(allow, deny) &&
             (IsPathTextAtOrBelow(opened, normalized_root) || IsPathTextAtOrBelow(normalized_root, opened));
    });
  };
  std::set<PolicyGlobFilter> filters;
  for (size_t d = 0; d < policy.blacklist_patterns.size(); ++d) {
    if (reopened_here(compiled.deny[d])) continue;
    const std::string& pattern = policy.blacklist_patterns[d];
    std::optional<std::string> glob = TranslateBlacklistPattern(root_text, pattern, policy.case_sensitive);
    if (!glob) continue;
    // A name excludes a directory's contents as well as the entry itself.
    if (!glob->ends_with("/**")) filters.insert({policy.case_sensitive, "!" + *glob + "/**"});
    filters.insert({policy.case_sensitive, "!" + *glob});
  }
  // Past this many the command line costs more than the files it spares; the line filter
  // decides either way.
  if (filters.size() > kMaxPolicyGlobFilters) return CommandResult::Success();
  for (const PolicyGlobFilter& filter : filters) {
    arguments.push_back(filter.case_sensitive ? "--glob" : "--iglob");
    arguments.push_back(filter.glob);
  }
  return CommandResult::Success();
}

bool IsRootRecursivelyCovered(const std::filesystem::path& root, const FileAccessPolicyConfig& policy) {
  if (policy.whitelist_patterns.empty() && policy.read_only_patterns.empty()) return true;
  const std::string n = NormalizePathForPolicy(PathToUtf8(root), policy.case_sensitive);
  for (const auto* list : {&policy.whitelist_patterns, &policy.read_only_patterns}) {
    for (const std::string& pattern : *list) {
      if (PatternCoversRoot(pattern, n, policy.case_sensitive)) return true;
    }
  }
  return false;
}

std::string EscapeGlobLiteral(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (std::string_view("![]{}\\").find(c) != std::string_view::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace brimo_stack::quay_tools_host::internal
