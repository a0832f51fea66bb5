// The command line and the launch JSON.
#include "brimo_stack/local_runtime/host_launch_config.h"

#include <nlohmann/json.hpp>

#include "brimo_stack_common/json_number.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

using nlohmann::json;

uint64_t ReadUnsigned64(const json& value) { return static_cast<uint64_t>(ReadJsonInteger(value)); }

// Transport descriptors take booleans as 1 and 0 as well as numbers.
int32_t ReadDescriptor(const json& value) {
  if (value.is_boolean()) {
    return value.get<bool>() ? 1 : 0;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(ReadUnsigned64(value)));
}

}  // namespace

bool ParseHostCommandLine(int argc, const char* const* argv, HostLaunchConfig& config) {
  return ParseHostArguments(std::vector<std::string>(argv, argv + argc), config);
}

bool ParseHostArguments(const std::vector<std::string>& arguments, HostLaunchConfig& config) {
  if (arguments.size() != 3 || arguments[1] != kHostConfigOption) {
    return false;
  }
  HostLaunchConfig parsed;
  if (!ParseHostLaunchConfig(arguments[2], parsed) || parsed.transport.has_value()) {
    return false;
  }
  config = std::move(parsed);
  return true;
}

bool ParseHostLaunchConfig(std::string_view text, HostLaunchConfig& config) {
  if (text.empty() || text.size() > kMaxLaunchConfigBytes) {
    return false;
  }
  json root = json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false,
                          /*ignore_comments=*/false);
  if (root.is_discarded()) {
    return false;
  }
  HostLaunchConfig parsed;
  try {
    const json& log = root.at("log");
    if (!log.is_object()) {
      return false;
    }
    parsed.log.log_dir = log.at("log_dir").get<std::string>();
    parsed.log.log_level = static_cast<uint32_t>(ReadUnsigned64(log.at("log_level")));

    const json& transport = root.at("transport");
    if (!transport.is_null()) {
      if (!transport.is_object()) {
        return false;
      }
      HostTransportConfig descriptors;
      descriptors.stdin_fd = ReadDescriptor(transport.at("stdin_fd"));
      descriptors.stdout_fd = ReadDescriptor(transport.at("stdout_fd"));
      descriptors.stderr_fd = ReadDescriptor(transport.at("stderr_fd"));
      descriptors.parent_watch_fd = ReadDescriptor(transport.at("parent_watch_fd"));
      parsed.transport = descriptors;
    }

    if (const auto crash = root.find("crash"); crash != root.end()) {
      if (!crash->is_object()) {
        return false;
      }
      const uint64_t mode = ReadUnsigned64(crash->at("mode"));
      parsed.crash.mode = mode <= 2 ? static_cast<uint8_t>(mode) : kInvalidCrashMode;
      parsed.crash.dump_dir = crash->at("dump_dir").get<std::string>();
    }

    if (const auto telemetry = root.find("telemetry_endpoint"); telemetry != root.end()) {
      parsed.telemetry_endpoint = ReadJsonInteger(*telemetry);
    }
  } catch (const json::exception&) {
    return false;
  }

  if (AnyPathHasNul({parsed.log.log_dir, parsed.crash.dump_dir})) {
    return false;
  }
  if (parsed.transport.has_value()) {
    const HostTransportConfig& t = *parsed.transport;
    if (t.stdin_fd < 0 || t.stdout_fd < 0 || t.stderr_fd < 0 || t.parent_watch_fd < 0) {
      return false;
    }
  }
  const bool has_dump_dir = !parsed.crash.dump_dir.empty();
  switch (parsed.crash.mode) {
    case 0:
    case 1:
      if (has_dump_dir) {
        return false;
      }
      break;
    case 2:
      if (!has_dump_dir) {
        return false;
      }
      break;
    default:
      return false;
  }
  config = std::move(parsed);
  return true;
}

}  // namespace brimo_stack::local_runtime
