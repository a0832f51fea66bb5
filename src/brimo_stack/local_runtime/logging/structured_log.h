// The structured log line: component, message and a JSON object of fields.
#pragma once

#include <cstdint>
#include <string_view>

#include <nlohmann/json.hpp>

#include "brimo_stack/local_runtime/logging/log_levels.h"

namespace brimo_stack {

struct LogLocation {
  uint32_t line = 0;
  uint32_t column = 0;
  const char* file = "";
  const char* function = "";
};

void LogStructured(LogLevel level, std::string_view component, std::string_view message,
                   const nlohmann::json& fields, const LogLocation& location);

}  // namespace brimo_stack

#define BRIMO_LOG_LOCATION() \
  ::brimo_stack::LogLocation { static_cast<uint32_t>(__LINE__), 0u, __FILE__, __func__ }
