// The fixed prefix of a glob pattern, and the rg --files command line of what remains.
#include "quay_tools_host/search/ripgrep_glob_plan.h"

#include <algorithm>
#include <system_error>

#include "brimo_stack_common/path_text.h"
#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/search/grep_policy_filters.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> SplitPatternParts(std::string_view pattern) {
  std::vector<std::string> parts(1);
  for (const char c : pattern) {
    if (c == '/' || c == '\\') {
      parts.emplace_back();
    } else {
      parts.back().push_back(c);
    }
  }
  return parts;
}

bool HasWildcard(std::string_view part) { return part.find_first_of("*?") != std::string_view::npos; }

bool IsFixedName(std::string_view part) { return !part.empty() && part != "." && part != ".." && !HasWildcard(part); }

}  // namespace

CommandResult BuildRipgrepGlobPlan(const FileAccessPolicy& policy, RipgrepGlobPlan& plan) {
  const std::vector<std::string> parts = SplitPatternParts(plan.pattern);
  if (std::any_of(parts.begin(), parts.end(),
                  [](const std::string& part) { return part.empty() || part == "." || part == ".."; })) {
    return CommandResult::Success();
  }
  size_t fixed = 0;
  while (fixed + 1 < parts.size() && !HasWildcard(parts[fixed])) ++fixed;

  fs::path root = plan.root;
  for (size_t i = 0; i < fixed; ++i) {
    root /= PathFromUtf8(parts[i]);
    if (!CheckFileAccess(policy, PathToUtf8(root)).ok) {
      plan.no_results = true;
      return CommandResult::Success();
    }
    std::error_code error;
    const fs::file_status status = fs::symlink_status(root, error);
    if (error && !IsNotFoundErrorCode(error)) {
      return MakeFileErrorForPath(FileErrorKind::kGlobFailed, "inspect fixed glob prefix", root, error);
    }
    if (error || status.type() != fs::file_type::directory) {
      plan.no_results = true;
      return CommandResult::Success();
    }
  }
  std::string rest;
  for (size_t i = fixed; i < parts.size(); ++i) {
    if (i > fixed) rest.push_back('/');
    rest += parts[i];
  }
  plan.root = root;
  plan.pattern = rest;
  if (plan.max_depth <= fixed) {
    plan.no_results = true;
    return CommandResult::Success();
  }
  plan.max_depth -= fixed;
  const size_t remaining = parts.size() - fixed;
  if (std::find(parts.begin() + static_cast<std::ptrdiff_t>(fixed), parts.end(), "**") != parts.end()) {
    return CommandResult::Success();
  }
  plan.max_depth = std::min<uint64_t>(plan.max_depth, remaining);
  plan.single_level = plan.max_depth == 1;
  if (plan.single_level && IsFixedName(plan.pattern)) plan.literal_name = plan.pattern;
  return CommandResult::Success();
}

std::optional<std::string> ToRipgrepGlob(std::string_view pattern) {
  // rg 13 matches its globs as expressions whose wildcards stop at a line feed, so a glob over
  // directory names would leave files below a name holding one unlisted. Only its tests of a
  // file's own name, a whole fixed name or "*.<ext>", are exact; the verifier decides the rest.
  const std::vector<std::string> parts = SplitPatternParts(pattern);
  const std::string& last = parts.back();
  const bool extension_test =
      last.starts_with("*.") && !HasWildcard(last.substr(2)) && last.find('.', 2) == std::string::npos;
  if (last.empty() || (HasWildcard(last) && !extension_test)) return std::nullopt;
  return EscapeGlobLiteral(last);
}

CommandResult BuildRipgrepGlobArguments(const RipgrepGlobPlan& plan, const FileAccessPolicyConfig& policy,
                                        std::vector<std::string>& arguments) {
  arguments = {"--no-config", "--no-follow", "--files",  "--null",      "--color",
               "never",       "--no-ignore", "--hidden", "--max-depth", std::to_string(plan.max_depth)};
  if (const std::optional<std::string> glob = ToRipgrepGlob(plan.pattern)) {
    arguments.insert(arguments.end(), {"--glob", *glob});
  }
  CommandResult filters = AppendPolicyGlobFilters(plan.root, policy, arguments);
  if (!filters.ok) return filters;
  arguments.insert(arguments.end(), {"--", "."});
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
