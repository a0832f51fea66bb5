// The host's log levels: their numbers, the logging library's levels and their letters.
#pragma once

#include <cstdint>
#include <memory>

#include <spdlog/pattern_formatter.h>

namespace brimo_stack {

// 1 trace ... 6 critical, as the launch JSON and the structured log lines number them.
enum class LogLevel : int { kTrace = 1, kDebug = 2, kInfo = 3, kWarning = 4, kError = 5, kCritical = 6 };

// Levels 1 to 6 as the library's trace to critical; every other number (0 included) is off.
[[nodiscard]] spdlog::level::level_enum ToSpdlogLevel(uint32_t level);

namespace detail {

// The %* flag of a log line: t D I W E F for trace to critical, 'I' for anything else.
class BrimoStackLogLevelFormatter : public spdlog::custom_flag_formatter {
 public:
  ~BrimoStackLogLevelFormatter() override = default;
  void format(const spdlog::details::log_msg& message, const std::tm& time, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<custom_flag_formatter> clone() const override;
};

}  // namespace detail
}  // namespace brimo_stack
