// Builders for CommandResult and its JSON form.
#include "brimo_stack_common/command_result.h"

#include "brimo_stack_common/system_error.h"

namespace brimo_stack {

CommandResult MakeJsonOutputResult(nlohmann::json data) {
  CommandResult result;
  result.outputs.emplace();
  result.outputs->push_back(DataOutput{"json", std::move(data)});
  return result;
}

nlohmann::json CommandOutputToJson(const CommandOutput& output) {
  nlohmann::json object = nlohmann::json::object();
  std::visit(
      [&object](const auto& shape) {
        using Shape = std::decay_t<decltype(shape)>;
        object["type"] = shape.type;
        if constexpr (std::is_same_v<Shape, TextOutput>) {
          object["text"] = shape.text;
        } else if constexpr (std::is_same_v<Shape, DataOutput>) {
          object["data"] = shape.data;
        } else if constexpr (std::is_same_v<Shape, MimeDataOutput>) {
          object["mime_type"] = shape.mime_type;
          object["data"] = shape.data;
        }
      },
      output);
  return object;
}

std::string FormatSystemError(std::string_view context, int number) {
  std::string text(context);
  text += " failed";
  const std::string system_text = SystemErrorMessage(number);
  if (!system_text.empty()) {
    text += ": ";
    text += system_text;
  }
  return text;
}

CommandResult MakeSystemCommandError(std::string_view context, int number) {
  return CommandResult::Failure(kCategorySystem, number, FormatSystemError(context, number));
}

}  // namespace brimo_stack
