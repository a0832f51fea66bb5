// The host's logger: a rotating file as the process-wide default, or a silent one.
#include "brimo_stack/local_runtime/logging/host_logger.h"

#include <ctime>
#include <filesystem>
#include <stdexcept>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "brimo_stack/local_runtime/logging/log_levels.h"
#include "brimo_stack/local_runtime/process_info.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

constexpr size_t kLogFileMaxBytes = 10 * 1024 * 1024;
constexpr size_t kLogFilesKept = 3;

}  // namespace

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
    logger->set_level(ToSpdlogLevel(config.log_level));
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, "\r\n");
    formatter->add_flag<brimo_stack::detail::BrimoStackLogLevelFormatter>('*');
    formatter->set_pattern("[%Y-%m-%dT%H:%M:%S.%e%z](%P|%t)[%*][%s:%#] %v");
    logger->set_formatter(std::move(formatter));
    spdlog::set_default_logger(std::move(logger));
  } catch (const std::exception&) {
    spdlog::default_logger_raw()->log(
        spdlog::source_loc{"src/brimo_stack/local_runtime/logging/host_logger.cpp", __LINE__, "ConfigureHostLogger"},
        spdlog::level::err, "host_logger_config_failed host={} exception_kind=standard", host);
    DisableHostLogger();
  }
}

}  // namespace brimo_stack::local_runtime
