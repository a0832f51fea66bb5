// Where rg lives, checked at initialisation and again before every search.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>

#include "brimo_stack_common/command_result.h"

namespace brimo_stack::quay_tools_host::internal {

inline constexpr std::string_view kRipgrepEnvironmentVariable = "BRIMO_STACK_RG_EXECUTABLE";

class RipgrepPathCache {
 public:
  // Drops any earlier state first; an empty path is a valid configuration without rg.
  [[nodiscard]] CommandResult Configure(std::string_view rg_executable);
  // The path to start, after proving that nothing changed it since Configure.
  [[nodiscard]] CommandResult Resolve(std::filesystem::path& out_path);

 private:
  std::mutex mutex_;
  bool configured_ = false;
  std::string path_utf8_;
  std::filesystem::path path_;
};

}  // namespace brimo_stack::quay_tools_host::internal
