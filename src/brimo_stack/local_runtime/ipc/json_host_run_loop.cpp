// The request loop of the host: read a frame, dispatch, answer, decide the exit code.
#include "brimo_stack/local_runtime/ipc/json_host_run_loop.h"

#include <exception>
#include <string>

#include "brimo_stack/local_runtime/logging/structured_log.h"
#include "brimo_stack_common/log_summary.h"
#include "brimo_stack_common/utf8.h"

namespace brimo_stack::local_runtime {
namespace {

using nlohmann::json;

constexpr int32_t kContinueLoop = -1;
// A method or call id longer than this is logged as its summary.
constexpr size_t kMaxLoggedRequestTextBytes = 256;

void LogResultError(std::string_view component, std::string_view message, const CommandResult& result) {
  json fields = json::object();
  if (!result.ok && result.error.has_value()) {
    fields["category"] = result.error->category;
    fields["code"] = result.error->code;
  } else {
    fields["category"] = kCategoryInternal;
    fields["code"] = 0;
  }
  LogStructured(LogLevel::kError, component, message, fields, BRIMO_LOG_LOCATION());
}

void LogStop(std::string_view component, std::string_view reason, int32_t exit_code) {
  LogStructured(LogLevel::kInfo, component, "IPC loop stopped", json{{"reason", reason}, {"exit_code", exit_code}},
                BRIMO_LOG_LOCATION());
}

void LogFailedDispatch(std::string_view component, const JsonHostRequest& request, const CommandResult& result) {
  const std::string method = TextOrSummaryForLog(request.method, kMaxLoggedRequestTextBytes);
  const std::string call_id = TextOrSummaryForLog(request.sdk_call_id, kMaxLoggedRequestTextBytes);
  if (result.error.has_value()) {
    const int32_t category = result.error->category;
    const LogLevel level = category == kCategoryTimeout || category == kCategoryRefused ? LogLevel::kWarning
                                                                                         : LogLevel::kError;
    LogStructured(level, component, "rpc request failed",
                  json{{"method", method},
                       {"sdk_call_id", call_id},
                       {"category", category},
                       {"code", result.error->code}},
                  BRIMO_LOG_LOCATION());
    return;
  }
  LogStructured(LogLevel::kError, component, "rpc request failed",
                json{{"method", method}, {"sdk_call_id", call_id}, {"reason", "missing_error"}},
                BRIMO_LOG_LOCATION());
}

// -1 to go on, otherwise the exit code.
int32_t WriteResponseAndAct(ipc::IJsonLineChannel& channel, std::string_view component, const CommandResult& result,
                            JsonHostAction action) {
  CommandResult write = channel.WriteMessage(BuildResponseEnvelope(result));
  if (write.HasReason(FailureReason::kResponseTooLarge)) {
    // Nothing of the refused frame went out, so the pipe is still in step: this request is
    // answered with the refusal, and the host serves the next one.
    LogResultError(component, "IPC response refused", write);
    write = channel.WriteMessage(
        BuildResponseEnvelope(CommandResult::Failure(kCategoryInternal, 0, std::move(write.error->message))));
  }
  if (!write.ok) {
    LogResultError(component, "write IPC response failed", write);
    return 3;
  }
  switch (action) {
    case JsonHostAction::kContinue: return kContinueLoop;
    case JsonHostAction::kStopSuccess: return 0;
    default: return 1;
  }
}

// Messages echo inputs (a path, a pattern) that may run to megabytes; the head word at the start
// is what a parent matches on, and the count tells it that the rest is missing.
std::string BoundedMessage(const std::string& message) {
  if (message.size() <= kMaxResponseMessageBytes) {
    return message;
  }
  const size_t kept = CompleteUtf8Prefix(std::string_view(message).substr(0, kMaxResponseMessageBytes));
  return message.substr(0, kept) + "... [" + std::to_string(message.size() - kept) + " bytes cut]";
}

JsonHostDispatchResult InternalRequestFailure() {
  return JsonHostDispatchResult{CommandResult::Failure(kCategoryInternal, 0, "internal host request failure"),
                                JsonHostAction::kStopFailure};
}

void LogDispatchException(std::string_view component, const char* kind) {
  LogStructured(LogLevel::kError, component, "rpc request failed",
                json{{"stage", "dispatch"}, {"exception_kind", kind}, {"category", kCategoryInternal}, {"code", 0}},
                BRIMO_LOG_LOCATION());
}

}  // namespace

JsonHostRequest ParseJsonHostRequest(json value) {
  JsonHostRequest request;
  if (value.is_null()) {
    return request;
  }
  request.method = value.value("method", std::string());
  request.sdk_call_id = value.value("sdk_call_id", std::string());
  // The value is an object by now; its params, up to a whole frame of content, move out uncopied.
  if (const auto params = value.find("params"); params != value.end()) {
    request.params = std::move(*params);
  }
  return request;
}

json BuildResponseEnvelope(const CommandResult& result) {
  json response = json::object();
  response["ok"] = result.ok;
  if (!result.ok && result.error.has_value()) {
    response["error"] = json{{"category", result.error->category},
                             {"code", result.error->code},
                             {"message", BoundedMessage(result.error->message)}};
  }
  if (result.outputs.has_value() && !result.outputs->empty()) {
    json outputs = json::array();
    for (const CommandOutput& output : *result.outputs) {
      outputs.push_back(CommandOutputToJson(output));
    }
    response["outputs"] = std::move(outputs);
  }
  return response;
}

int32_t RunJsonHostLoop(ipc::IJsonLineChannel& channel, const JsonHostRunLoopOptions& options,
                        const JsonHostDispatchFunction& dispatch) {
  const std::string_view component = options.component;
  for (;;) {
    ipc::JsonHostReadResult read;
    const CommandResult read_result = channel.ReadMessage(read);
    switch (read.status) {
      case ipc::JsonHostReadStatus::kEndOfInput:
        LogStop(component, "eof", 0);
        return 0;
      case ipc::JsonHostReadStatus::kReadFailed:
        LogResultError(component, "read IPC request failed", read_result);
        LogStop(component, "read_error", 2);
        return 2;
      case ipc::JsonHostReadStatus::kTooLarge:
        LogResultError(component, "IPC request exceeds frame limit", read_result);
        LogStop(component, "request_too_large", 1);
        return 1;
      case ipc::JsonHostReadStatus::kInvalidJson: {
        if (options.warn_on_invalid_json) {
          json fields = json::object();
          if (read_result.error.has_value()) {
            fields["category"] = read_result.error->category;
            fields["code"] = read_result.error->code;
          }
          LogStructured(LogLevel::kWarning, component, "invalid json request", fields, BRIMO_LOG_LOCATION());
        }
        return WriteResponseAndAct(channel, component, read_result, JsonHostAction::kStopFailure);
      }
      case ipc::JsonHostReadStatus::kValue:
        break;
    }

    JsonHostRequest request;
    JsonHostDispatchResult dispatched;
    try {
      request = ParseJsonHostRequest(std::move(read.value));
      if (!dispatch) {
        throw std::bad_function_call();
      }
      dispatched = dispatch(request);
      if (!dispatched.result.ok) {
        LogFailedDispatch(component, request, dispatched.result);
      }
    } catch (const std::exception&) {
      LogDispatchException(component, "standard");
      dispatched = InternalRequestFailure();
    } catch (...) {
      LogDispatchException(component, "unknown");
      dispatched = InternalRequestFailure();
    }

    const int32_t outcome = WriteResponseAndAct(channel, component, dispatched.result, dispatched.action);
    if (outcome != kContinueLoop) {
      LogStop(component, "dispatch_action", outcome);
      return outcome;
    }
  }
}

}  // namespace brimo_stack::local_runtime
