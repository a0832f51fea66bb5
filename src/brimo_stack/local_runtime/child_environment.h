// What a child process gets as its environment and working directory.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime {

// Orders variable names as the platform's environment does: by bytes on POSIX.
struct EnvironmentNameLess {
  [[nodiscard]] bool operator()(const std::string& left, const std::string& right) const;
};

using EnvironmentMap = std::map<std::string, std::string, EnvironmentNameLess>;

// The members of the JSON object `json_text` (an empty text is an empty object): strings as
// they are, numbers and booleans as their JSON text. Null, objects and arrays are refused,
// with `label` at the head of the message.
[[nodiscard]] CommandResult ParseEnvironmentObject(std::string_view json_text, std::string_view label,
                                                   std::map<std::string, std::string>& out);

// A child's environment as "NAME=value" entries in name order: the host's own environment for
// `environment_mode` 0, else the short list of variables the host has set, then `base_env`'s
// members over it. On failure `error_text` says why and `system_error` (when given) holds the
// system's error number, 0 for a refused `base_env`.
[[nodiscard]] bool BuildEnvironmentBlock(std::string_view base_env, int environment_mode,
                                         std::vector<std::string>& block, std::string& error_text,
                                         int* system_error);

// An empty `cwd` (the host's own) or an existing directory given by an absolute path.
[[nodiscard]] CommandResult ValidateWorkingDirectory(std::string_view cwd);

namespace internal {

// The platform layer under BuildEnvironmentBlock.

// Every variable of the host's environment, in the order the system keeps them.
[[nodiscard]] CommandResult ReadInheritedEnvironment(std::vector<std::pair<std::string, std::string>>& out);
// The variables a child keeps when it does not inherit the whole environment.
[[nodiscard]] const std::vector<std::string_view>& ShortEnvironmentNames();

enum class PathKind { kDirectory, kOther, kMissing };
// What stands at `path`, links followed; a failure other than a missing path is `stage`'s.
[[nodiscard]] CommandResult InspectPathKind(const std::string& path, std::string_view stage, PathKind& kind);

}  // namespace internal

}  // namespace brimo_stack::local_runtime
