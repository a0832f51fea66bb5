// The one-letter level flag of the host's log lines.
#pragma once

#include <memory>

#include <spdlog/pattern_formatter.h>

namespace brimo_stack::detail {

// t D I W E F for trace to critical; 'I' for anything else.
class BrimoStackLogLevelFormatter : public spdlog::custom_flag_formatter {
 public:
  ~BrimoStackLogLevelFormatter() override = default;
  void format(const spdlog::details::log_msg& message, const std::tm& time, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<custom_flag_formatter> clone() const override;
};

}  // namespace brimo_stack::detail
