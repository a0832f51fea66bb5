// Launch JSON parsing and the host logger set-up.
#include "brimo_stack/local_runtime/host_launch_config.h"

#include <ctime>
#include <filesystem>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "brimo_stack/local_runtime/logging/log_level_formatter.h"
#include "brimo_stack/local_runtime/process_info.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

using nlohmann::json;

constexpr size_t kLogFileMaxBytes = 10 * 1024 * 1024;
constexpr size_t kLogFilesKept = 3;

[[noreturn]] void ThrowTypeError(const json& value, const char* expected) {
  throw json::type_error::create(302, std::string("type must be ") + expected + ", but is " + value.type_name(),
                                 &value);
}

// A JSON number read as signed 64-bit; booleans are refused, a fraction is cut towards zero.
int64_t ReadSigned64(const json& value) {
  if (value.is_number_float()) {
    const double number = value.get<double>();
    if (!(number > -9.3e18 && number < 9.3e18)) {
      return number < 0 ? INT64_MIN : INT64_MAX;
    }
    return static_cast<int64_t>(number);
  }
  if (value.is_number_unsigned()) {
    return static_cast<int64_t>(value.get<uint64_t>());
  }
  if (value.is_number_integer()) {
    return value.get<int64_t>();
  }
  ThrowTypeError(value, "number");
}

uint64_t ReadUnsigned64(const json& value) { return static_cast<uint64_t>(ReadSigned64(value)); }

// Transport descriptors take booleans as 1 and 0 as well as numbers.
int32_t ReadDescriptor(const json& value) {
  if (value.is_boolean()) {
    return value.get<bool>() ? 1 : 0;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(ReadUnsigned64(value)));
}

spdlog::level::level_enum LevelFromConfig(uint32_t level) {
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

}  // namespace

bool ParseHostCommandLine(HostLaunchConfig& config) {
  return ParseHostArguments(ReadProgramArguments(), config);
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
      parsed.telemetry_endpoint = ReadSigned64(*telemetry);
    }
  } catch (const json::exception&) {
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

void DisableHostLogger() {
  auto silent = std::make_shared<spdlog::logger>("default");
  silent->set_level(spdlog::level::off);
  spdlog::set_default_logger(std::move(silent));
}

std::string MakeHostLogFileName(std::string_view host) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[15] = {};
  if (std::strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", &local) == 0) {
    throw std::runtime_error("format log file timestamp failed");
  }
  std::string name(host);
  name += '_';
  name += stamp;
  name += '_';
  name += std::to_string(CurrentProcessId());
  name += ".log";
  return name;
}

void ConfigureHostLogger(std::string_view host, const HostLogConfig& config) {
  if (host.empty() || config.log_dir.empty() || config.log_level == 0) {
    DisableHostLogger();
    return;
  }
  try {
    const std::filesystem::path directory =
        PrepareWidePath(config.log_dir) / std::filesystem::path(std::string(host));
    std::filesystem::create_directories(directory);
    const std::filesystem::path file = directory / MakeHostLogFileName(host);
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file.string(), kLogFileMaxBytes, kLogFilesKept,
                                                                       /*rotate_on_open=*/false);
    auto logger = std::make_shared<spdlog::logger>("default", std::move(sink));
    logger->flush_on(spdlog::level::debug);
    logger->set_level(LevelFromConfig(config.log_level));
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, "\r\n");
    formatter->add_flag<brimo_stack::detail::BrimoStackLogLevelFormatter>('*');
    formatter->set_pattern("[%Y-%m-%dT%H:%M:%S.%e%z](%P|%t)[%*][%s:%#] %v");
    logger->set_formatter(std::move(formatter));
    spdlog::set_default_logger(std::move(logger));
  } catch (const std::exception&) {
    spdlog::default_logger_raw()->log(
        spdlog::source_loc{"src/brimo_stack/local_runtime/host_launch_config.cpp", __LINE__, "ConfigureHostLogger"},
        spdlog::level::err, "host_logger_config_failed host={} exception_kind=standard", host);
    DisableHostLogger();
  }
}

}  // namespace brimo_stack::local_runtime
