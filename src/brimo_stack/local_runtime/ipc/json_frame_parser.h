// Strict JSON for request frames: a fast reader for what requests are made of, the JSON
// library for everything else.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

namespace brimo_stack::local_runtime::ipc {

// Parses `text` as one strict JSON value: no comments, no trailing commas, nothing but
// whitespace after the value. False, with `value` null, when the text isn't such a value.
[[nodiscard]] bool ParseJsonFrame(std::string_view text, nlohmann::json& value);

// The fast reader alone: true with the value, false when it leaves the text to the library.
// When it takes a text, it gives the value the library would give.
[[nodiscard]] bool ReadJsonFrameFast(std::string_view text, nlohmann::json& value);

}  // namespace brimo_stack::local_runtime::ipc
