// The one result type that every command, channel operation and primitive returns.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

namespace brimo_stack {

struct CommandError {
  int32_t category = 0;
  int32_t code = 0;
  std::string message;
};

// The four shapes an output can take on the wire.
struct TypeOnlyOutput {
  std::string type;
};
struct TextOutput {
  std::string type;
  std::string text;
};
struct DataOutput {
  std::string type;
  nlohmann::json data;
};
struct MimeDataOutput {
  std::string type;
  std::string mime_type;
  std::string data;
};
using CommandOutput = std::variant<TypeOnlyOutput, TextOutput, DataOutput, MimeDataOutput>;

struct CommandResult {
  bool ok = true;
  std::optional<CommandError> error;
  std::optional<std::vector<CommandOutput>> outputs;

  [[nodiscard]] static CommandResult Success() { return CommandResult{}; }
  [[nodiscard]] static CommandResult Failure(int32_t category, int32_t code, std::string message) {
    CommandResult result;
    result.ok = false;
    result.error = CommandError{category, code, std::move(message)};
    return result;
  }
};

// Category numbers shared by every layer.
inline constexpr int32_t kCategoryTimeout = 1;
inline constexpr int32_t kCategoryInternal = 3;
inline constexpr int32_t kCategorySystem = 6;
inline constexpr int32_t kCategoryRefused = 7;

// A success with exactly one output of type "json".
[[nodiscard]] CommandResult MakeJsonOutputResult(nlohmann::json data);

// The JSON object of one output: keys in byte order, as every frame prints them.
[[nodiscard]] nlohmann::json CommandOutputToJson(const CommandOutput& output);

// "context failed: <system text>", the text omitted when the system has none.
[[nodiscard]] std::string FormatSystemError(std::string_view context, int number);

// Category 6 with the system error number as code.
[[nodiscard]] CommandResult MakeSystemCommandError(std::string_view context, int number);

}  // namespace brimo_stack
