// The structured log line on the process-wide default logger.
#include "brimo_stack/local_runtime/logging/structured_log.h"

#include <spdlog/spdlog.h>

namespace brimo_stack {

void LogStructured(LogLevel level, std::string_view component, std::string_view message,
                   const nlohmann::json& fields, const LogLocation& location) {
  spdlog::logger* logger = spdlog::default_logger_raw();
  const auto spd_level = ToSpdlogLevel(static_cast<uint32_t>(level));
  if (logger == nullptr || !logger->should_log(spd_level)) {
    return;
  }
  const std::string serialized = fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  logger->log(spdlog::source_loc{location.file, static_cast<int>(location.line), location.function}, spd_level,
              "component={}, message={}, fields={}", component, message, serialized);
}

}  // namespace brimo_stack
