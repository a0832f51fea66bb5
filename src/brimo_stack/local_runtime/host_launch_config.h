// The launch configuration of the host and its command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brimo_stack::local_runtime {

struct HostLogConfig {
  std::string log_dir;
  uint32_t log_level = 0;
};

struct HostTransportConfig {
  int32_t stdin_fd = 0;
  int32_t stdout_fd = 0;
  int32_t stderr_fd = 0;
  int32_t parent_watch_fd = 0;
};

struct HostCrashConfig {
  // 0, 1 or 2; every other number read from JSON becomes kInvalidCrashMode.
  uint8_t mode = 0;
  std::string dump_dir;
};
inline constexpr uint8_t kInvalidCrashMode = 255;

struct HostLaunchConfig {
  HostLogConfig log;
  std::optional<HostTransportConfig> transport;
  HostCrashConfig crash;
  int64_t telemetry_endpoint = -1;
};

inline constexpr std::string_view kHostConfigOption = "--brimo-stack-host-config";
inline constexpr size_t kMaxLaunchConfigBytes = 16384;

// The arguments `main` was given; false for every refusal, leaving `config` untouched.
[[nodiscard]] bool ParseHostCommandLine(int argc, const char* const* argv, HostLaunchConfig& config);

// The checks of ParseHostCommandLine over an argument vector (program name first).
[[nodiscard]] bool ParseHostArguments(const std::vector<std::string>& arguments, HostLaunchConfig& config);

// `text` is the UTF-8 launch JSON. A refused text leaves `config` as it was.
[[nodiscard]] bool ParseHostLaunchConfig(std::string_view text, HostLaunchConfig& config);

}  // namespace brimo_stack::local_runtime
