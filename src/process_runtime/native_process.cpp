#include "process_runtime/native_process.h"

#include <array>

namespace brimo_stack::process_runtime {

std::string_view ProcessRoleLogName(ProcessRole role) {
  static constexpr std::array<std::string_view, 5> kNames = {"interactive_shell", "non_interactive_shell",
                                                             "file_worker", "one_shot", "file_search"};
  const auto index = static_cast<uint32_t>(role);
  return index < kNames.size() ? kNames[index] : "unknown";
}

}  // namespace brimo_stack::process_runtime
