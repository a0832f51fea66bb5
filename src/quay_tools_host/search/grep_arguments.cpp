#include "quay_tools_host/search/grep_arguments.h"

#include <algorithm>

#include "quay_tools_host/search/grep_policy_filters.h"

namespace brimo_stack::quay_tools_host::internal {

uint64_t GrepMaxColumns(size_t pattern_bytes) {
  return std::clamp<uint64_t>(static_cast<uint64_t>(pattern_bytes) + 50, 200, 4096);
}

CommandResult BuildGrepArguments(const FileGrepRequest& request, const std::filesystem::path& real,
                                 const std::filesystem::path& target, std::vector<std::string>& arguments) {
  arguments = {"--no-config", "--no-follow", "-n", "--color", "never"};
  if (!request.return_output_only) {
    arguments.insert(arguments.end(),
                     {"-M", std::to_string(GrepMaxColumns(request.pattern.size())), "--max-columns-preview"});
  }
  if (request.case_insensitive.value_or(false)) arguments.push_back("-i");
  if (!request.return_output_only && !request.pattern_is_regex) arguments.push_back("-F");
  if (request.multiline.value_or(false)) arguments.insert(arguments.end(), {"-U", "--multiline-dotall"});
  if (request.glob && !request.glob->empty()) arguments.push_back("--glob=" + *request.glob);
  if (request.type && !request.type->empty()) arguments.push_back("--type=" + *request.type);
  CommandResult filters = AppendPolicyGlobFilters(real, request.policy, arguments);
  if (!filters.ok) return filters;
  if (request.context_before.value_or(0) != 0) {
    arguments.insert(arguments.end(), {"-B", std::to_string(*request.context_before)});
  }
  if (request.context_after.value_or(0) != 0) {
    arguments.insert(arguments.end(), {"-A", std::to_string(*request.context_after)});
  }
  if (request.head_limit.value_or(0) > 0) {
    arguments.insert(arguments.end(), {"--max-count", std::to_string(*request.head_limit)});
  }
  arguments.insert(arguments.end(), {"--", request.pattern, target.string()});
  return CommandResult::Success();
}

}  // namespace brimo_stack::quay_tools_host::internal
