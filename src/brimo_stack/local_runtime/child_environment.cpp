// The child's environment: the inherited or short base, base_env over it, and the block.
#include "brimo_stack/local_runtime/child_environment.h"

#include <nlohmann/json.hpp>

#include "brimo_stack/local_runtime/process_environment.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

CommandResult Refuse(std::string message) { return CommandResult::Failure(kCategoryRefused, 1, std::move(message)); }

// A name the system could not hold: empty, or cut by an '=' or a NUL when the block is read back.
bool IsUsableName(std::string_view name) {
  return !name.empty() && name.find('=') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace

CommandResult ParseEnvironmentObject(std::string_view json_text, std::string_view label,
                                     std::map<std::string, std::string>& out) {
  out.clear();
  if (json_text.empty()) {
    return CommandResult::Success();
  }
  const nlohmann::json object =
      nlohmann::json::parse(json_text, /*cb=*/nullptr, /*allow_exceptions=*/false, /*ignore_comments=*/false);
  if (!object.is_object()) {
    return Refuse(std::string(label) + " must be a JSON object");
  }
  for (const auto& [key, value] : object.items()) {
    if (value.is_null() || value.is_object() || value.is_array()) {
      out.clear();
      return Refuse(std::string(label) + " contains invalid value for environment variable: " + key);
    }
    std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    // A NUL would end the entry early in the block, and the child would see another value.
    if (text.find('\0') != std::string::npos) {
      out.clear();
      return Refuse(std::string(label) + " contains invalid value for environment variable: " + key);
    }
    if (!IsUsableName(key)) {
      out.clear();
      return Refuse(std::string(label) + " contains invalid environment variable name: " + key);
    }
    out.emplace(key, std::move(text));
  }
  return CommandResult::Success();
}

bool BuildEnvironmentBlock(std::string_view base_env, int environment_mode, std::vector<std::string>& block,
                           std::string& error_text, int* system_error) {
  block.clear();
  error_text.clear();
  if (system_error != nullptr) *system_error = 0;
  EnvironmentMap environment;
  if (environment_mode == 0) {
    std::vector<std::pair<std::string, std::string>> inherited;
    if (CommandResult read = internal::ReadInheritedEnvironment(inherited); !read.ok) {
      error_text = read.error->message;
      if (system_error != nullptr) *system_error = read.error->code;
      return false;
    }
    for (auto& [name, value] : inherited) environment[name] = std::move(value);
  } else {
    for (const std::string_view name : internal::ShortEnvironmentNames()) {
      std::optional<std::string> value = GetProcessEnvironmentVariable(name);
      if (value.has_value() && !value->empty()) environment.emplace(std::string(name), std::move(*value));
    }
  }
  std::map<std::string, std::string> overrides;
  if (CommandResult parsed = ParseEnvironmentObject(base_env, "base_env", overrides); !parsed.ok) {
    error_text = parsed.error->message;
    return false;
  }
  for (auto& [name, value] : overrides) environment[name] = std::move(value);
  block.reserve(environment.size());
  for (const auto& [name, value] : environment) block.push_back(name + "=" + value);
  return true;
}

CommandResult ValidateWorkingDirectory(std::string_view cwd) {
  if (cwd.empty()) {
    return CommandResult::Success();
  }
  // The system would cut the path at a NUL and enter another directory than was checked.
  if (AnyPathHasNul({cwd})) {
    return Refuse(std::string(kNulInPathMessage));
  }
  const std::string text(cwd);
  if (!IsFullyQualifiedPath(PathFromUtf8(text))) {
    return Refuse("cwd must be an absolute path: " + text);
  }
  internal::PathKind kind = internal::PathKind::kMissing;
  if (CommandResult inspected = internal::InspectPathKind(text, "inspect cwd " + text, kind); !inspected.ok) {
    return inspected;
  }
  if (kind == internal::PathKind::kMissing) {
    return Refuse("cwd does not exist: " + text);
  }
  if (kind != internal::PathKind::kDirectory) {
    return Refuse("cwd is not a directory: " + text);
  }
  return CommandResult::Success();
}

}  // namespace brimo_stack::local_runtime
