// The host's log levels: their numbers, the logging library's levels and their letters.
#include "brimo_stack/local_runtime/logging/log_levels.h"

namespace brimo_stack {

spdlog::level::level_enum ToSpdlogLevel(uint32_t level) {
  switch (level) {
    case 1: return spdlog::level::trace;
    case 2: return spdlog::level::debug;
    case 3: return spdlog::level::info;
    case 4: return spdlog::level::warn;
    case 5: return spdlog::level::err;
    case 6: return spdlog::level::critical;
    default: return spdlog::level::off;
  }
}

namespace detail {

void BrimoStackLogLevelFormatter::format(const spdlog::details::log_msg& message, const std::tm&,
                                         spdlog::memory_buf_t& dest) {
  char letter = 'I';
  switch (message.level) {
    case spdlog::level::trace: letter = 't'; break;
    case spdlog::level::debug: letter = 'D'; break;
    case spdlog::level::info: letter = 'I'; break;
    case spdlog::level::warn: letter = 'W'; break;
    case spdlog::level::err: letter = 'E'; break;
    case spdlog::level::critical: letter = 'F'; break;
    default: break;
  }
  dest.push_back(letter);
}

std::unique_ptr<spdlog::custom_flag_formatter> BrimoStackLogLevelFormatter::clone() const {
  return std::make_unique<BrimoStackLogLevelFormatter>();
}

}  // namespace detail
}  // namespace brimo_stack
