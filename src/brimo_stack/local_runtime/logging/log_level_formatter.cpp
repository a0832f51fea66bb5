// The one-letter level flag of the host's log lines.
#include "brimo_stack/local_runtime/logging/log_level_formatter.h"

namespace brimo_stack::detail {

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

}  // namespace brimo_stack::detail
