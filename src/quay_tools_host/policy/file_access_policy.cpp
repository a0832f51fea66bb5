// The access policy of a request: pattern lists compiled for one mode and decided on text.
#include "quay_tools_host/policy/file_access_policy.h"

#include "brimo_stack_common/path_text.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr int32_t kPolicyDeniedCode = 1;

bool MatchesPattern(const PolicyPattern& pattern, std::string_view normalized_path) {
  return pattern.normalized == normalized_path || MatchWildcard(pattern.normalized, normalized_path);
}

std::string_view PrefixOrNormalized(const PolicyPattern& pattern) {
  return pattern.has_directory_prefix ? std::string_view(pattern.directory_prefix)
                                      : std::string_view(pattern.normalized);
}

bool CoversSubtree(const PolicyPattern& allow, std::string_view normalized_directory) {
  return allow.has_directory_prefix && IsPathTextAtOrBelow(normalized_directory, allow.directory_prefix);
}

bool MayApplyBelow(const PolicyPattern& deny, std::string_view normalized_directory) {
  if (!deny.is_literal) return true;
  if (!deny.has_directory_prefix) return IsPathTextAtOrBelow(deny.normalized, normalized_directory);
  return IsPathTextAtOrBelow(deny.directory_prefix, normalized_directory) ||
         IsPathTextAtOrBelow(normalized_directory, deny.directory_prefix);
}

std::string DirectoryPrefixOf(const std::string& normalized) {
  const size_t n = normalized.size();
  if (n < 2 || normalized[n - 1] != '*' || !IsPathSeparator(normalized[n - 2])) return {};
  const std::string head = normalized.substr(0, n - 2);
  if (head.find_first_of("*?") != std::string::npos) return {};
  if (head.empty()) return std::string(1, normalized[n - 2]);
  if (policy_platform::IsDriveHead(head)) return head + normalized[n - 2];
  return head;
}

}  // namespace

bool Overrides(const PolicyPattern& allow, const PolicyPattern& deny) {
  if (!allow.is_literal || !deny.is_literal) return false;
  const std::string_view pa = PrefixOrNormalized(allow);
  const std::string_view pd = PrefixOrNormalized(deny);
  return pa != pd && IsPathTextAtOrBelow(pa, pd);
}

std::string NormalizePathForPolicy(std::string_view path_text, bool case_sensitive) {
  std::string text = policy_platform::PlatformForm(path_text);
  StripTrailingSeparators(text);
  if (!case_sensitive) policy_platform::FoldCase(text);
  return text;
}

bool MatchWildcard(std::string_view pattern, std::string_view text) {
  size_t p = 0;
  size_t t = 0;
  size_t star = std::string_view::npos;
  size_t star_text = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || (pattern[p] != '*' && pattern[p] == text[t]))) {
      ++p;
      ++t;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      star_text = t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++star_text;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

PolicyPattern CompilePolicyPattern(std::string_view raw, bool case_sensitive) {
  PolicyPattern pattern;
  pattern.raw = std::string(raw);
  pattern.normalized = NormalizePathForPolicy(raw, case_sensitive);
  pattern.directory_prefix = DirectoryPrefixOf(pattern.normalized);
  pattern.has_directory_prefix = !pattern.directory_prefix.empty();
  pattern.is_literal = pattern.has_directory_prefix || pattern.normalized.find_first_of("*?") == std::string::npos;
  return pattern;
}

FileAccessPolicy CompileFileAccessPolicy(const FileAccessPolicyConfig& config, bool for_write) {
  FileAccessPolicy policy;
  policy.case_sensitive = config.case_sensitive;
  policy.for_write = for_write;
  policy.require_whitelist = config.require_whitelist;
  const auto add = [&](std::vector<PolicyPattern>& list, const std::vector<std::string>& raws) {
    for (const std::string& raw : raws) list.push_back(CompilePolicyPattern(raw, config.case_sensitive));
  };
  add(policy.allow, config.whitelist_patterns);
  add(policy.deny, config.blacklist_patterns);
  if (for_write) {
    add(policy.deny, config.read_only_patterns);
    policy.read_only_raw = config.read_only_patterns;
  } else {
    add(policy.allow, config.read_only_patterns);
  }
  return policy;
}

CommandResult CheckFileAccess(const FileAccessPolicy& policy, std::string_view path_text) {
  const std::string n = NormalizePathForPolicy(path_text, policy.case_sensitive);
  for (const PolicyPattern& deny : policy.deny) {
    if (!MatchesPattern(deny, n)) continue;
    for (const PolicyPattern& allow : policy.allow) {
      if (MatchesPattern(allow, n) && Overrides(allow, deny)) return CommandResult::Success();
    }
    bool read_only = false;
    if (policy.for_write) {
      for (const std::string& raw : policy.read_only_raw) read_only = read_only || raw == deny.raw;
    }
    const std::string_view head = read_only ? "FILE_ACCESS_DENIED: matched read-only pattern: "
                                            : "FILE_ACCESS_DENIED: matched blacklist pattern: ";
    return CommandResult::Failure(kCategoryRefused, kPolicyDeniedCode, std::string(head) + deny.raw,
                                  FailureReason::kAccessDenied);
  }
  if (policy.allow.empty()) {
    if (!policy.require_whitelist) return CommandResult::Success();
  } else {
    for (const PolicyPattern& allow : policy.allow) {
      if (MatchesPattern(allow, n)) return CommandResult::Success();
    }
  }
  return CommandResult::Failure(kCategoryRefused, kPolicyDeniedCode,
                                "FILE_ACCESS_DENIED: did not match any whitelist pattern",
                                FailureReason::kAccessDenied);
}

CommandResult CheckRequestPathAccess(const FileAccessPolicyConfig& config, const std::filesystem::path& logical_path,
                                     const std::filesystem::path& real_path, bool for_write) {
  CommandResult logical = CheckFileAccess(CompileFileAccessPolicy(config, for_write), PathToUtf8(logical_path));
  if (!logical.ok || real_path.native() == logical_path.native()) return logical;
  return CheckFileAccess(CompileFileAccessPolicy(config, for_write), PathToUtf8(real_path));
}

bool IsSubtreeFullyAllowed(const FileAccessPolicy& policy, std::string_view directory_text) {
  const std::string n = NormalizePathForPolicy(directory_text, policy.case_sensitive);
  if (policy.require_whitelist && policy.allow.empty()) return false;
  const bool needs_cover = policy.require_whitelist || !policy.allow.empty();
  if (needs_cover) {
    bool covered = false;
    for (const PolicyPattern& allow : policy.allow) covered = covered || CoversSubtree(allow, n);
    if (!covered) return false;
  }
  for (const PolicyPattern& deny : policy.deny) {
    if (!MayApplyBelow(deny, n)) continue;
    bool excepted = false;
    for (const PolicyPattern& allow : policy.allow) {
      excepted = excepted || (CoversSubtree(allow, n) && Overrides(allow, deny));
    }
    if (!excepted) return false;
  }
  return true;
}

}  // namespace brimo_stack::quay_tools_host::internal
