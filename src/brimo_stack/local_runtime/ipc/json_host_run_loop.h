// The request loop of the host: read a frame, dispatch, answer, decide the exit code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "brimo_stack/local_runtime/ipc/json_line_channel.h"
#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime {

struct JsonHostRequest {
  std::string method;
  std::string sdk_call_id;
  nlohmann::json params = nlohmann::json::object();
};

enum class JsonHostAction : int { kContinue = 0, kStopSuccess = 1, kStopFailure = 2 };

struct JsonHostDispatchResult {
  CommandResult result;
  JsonHostAction action = JsonHostAction::kContinue;
};

struct JsonHostRunLoopOptions {
  std::string_view component;
  bool warn_on_invalid_json = false;
};

// The handler may take the params apart: the loop looks only at the method and call id after it.
using JsonHostDispatchFunction = std::function<JsonHostDispatchResult(JsonHostRequest&)>;

// Throws the JSON library's exception for a request that is neither an object nor null, or
// whose keys have the wrong type.
[[nodiscard]] JsonHostRequest ParseJsonHostRequest(nlohmann::json value);

// A failure's message on the wire holds at most this many bytes of its text, then a mark.
inline constexpr size_t kMaxResponseMessageBytes = 4096;

// The response envelope: ok, then error for a failure, then outputs when there are any. A
// message over kMaxResponseMessageBytes keeps its head, cut at a character boundary, and ends
// in "... [<N> bytes cut]".
[[nodiscard]] nlohmann::json BuildResponseEnvelope(const CommandResult& result);

[[nodiscard]] int32_t RunJsonHostLoop(ipc::IJsonLineChannel& channel, const JsonHostRunLoopOptions& options,
                                      const JsonHostDispatchFunction& dispatch);

}  // namespace brimo_stack::local_runtime
