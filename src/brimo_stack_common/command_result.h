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

// Why a step failed, for the program's own decisions (a mutating command turns a denial into
// PERMISSION_DENIED); messages are for people and are never parsed. Not on the wire.
enum class FailureReason : uint8_t {
  kUnspecified = 0,
  kAccessDenied = 1,
  // The channel refused a response by its size before writing a byte of it: the request can
  // still be answered, unlike after a failed write.
  kResponseTooLarge = 2,
};

struct CommandError {
  int32_t category = 0;
  int32_t code = 0;
  std::string message;
  FailureReason reason = FailureReason::kUnspecified;
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
  [[nodiscard]] static CommandResult Failure(int32_t category, int32_t code, std::string message,
                                             FailureReason reason = FailureReason::kUnspecified) {
    CommandResult result;
    result.ok = false;
    result.error = CommandError{category, code, std::move(message), reason};
    return result;
  }
  [[nodiscard]] bool HasReason(FailureReason reason) const { return error.has_value() && error->reason == reason; }
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

// The one conversion of a failed system call into a result: category 6, the error number (errno
// read right after the call, or GetLastError) as code, FormatSystemError as message.
[[nodiscard]] CommandResult MakeSystemCommandError(std::string_view context, int number);

}  // namespace brimo_stack
