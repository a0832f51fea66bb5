// Writes a dump of the whole process at a fatal fault, in crash mode 2.
#include "brimo_stack/local_runtime/crash/self_managed_crash_handler.h"

#include <system_error>

#include <fmt/format.h>

#include "brimo_stack/local_runtime/process_environment.h"
#include "brimo_stack/local_runtime/process_info.h"
#include "brimo_stack_common/path_text.h"

namespace brimo_stack::local_runtime {
namespace {

// The path's length as the wide-character platforms count it; a byte that isn't UTF-8 counts
// as one unit, which is what the conversion would replace it with.
size_t CountUtf16Units(std::string_view text) {
  size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) == 0x80) {
      continue;
    }
    units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

}  // namespace

DumpGuid MakeVersion4Guid(const std::array<uint8_t, 16>& random_bytes) {
  std::array<uint8_t, 16> b = random_bytes;
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  DumpGuid guid;
  guid.data1 = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
  guid.data2 = static_cast<uint16_t>((b[4] << 8) | b[5]);
  guid.data3 = static_cast<uint16_t>((b[6] << 8) | b[7]);
  for (size_t i = 0; i < guid.data4.size(); ++i) {
    guid.data4[i] = b[8 + i];
  }
  return guid;
}

std::string FormatDumpGuid(const DumpGuid& guid) {
  const auto& d = guid.data4;
  return fmt::format("{:08x}-{:04x}-{:04x}-{:02x}{:02x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}", guid.data1, guid.data2,
                     guid.data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
}

std::string MakeDumpFileName(std::string_view host, uint64_t process_id, std::string_view guid_text) {
  return fmt::format("{}_{}_{}{}", host, process_id, guid_text, kDumpFileExtension);
}

CommandResult PrepareDumpFilePath(const HostCrashConfig& config, std::string_view host, std::filesystem::path& out) {
  if (config.dump_dir.empty() || host.empty()) {
    return CommandResult::Failure(kCategoryRefused, 1, "CRASH_DUMP_CONFIG_INVALID: dump_dir and host are required");
  }
  std::error_code error;
  std::filesystem::path directory = std::filesystem::absolute(PrepareWidePath(config.dump_dir), error);
  if (error) {
    return MakeSystemCommandError("make dump directory absolute", error.value());
  }
  if (directory.empty()) {
    return CommandResult::Failure(kCategoryInternal, 0, "CRASH_DUMP_CONFIG_INVALID: dump directory is empty");
  }
  directory /= kDumpDirectoryName;
  std::filesystem::create_directories(directory, error);
  if (error) {
    return MakeSystemCommandError("create dump directory", error.value());
  }

  std::array<uint8_t, 16> random_bytes{};
  if (CommandResult random = FillRandomBytes(random_bytes); !random.ok) {
    return random;
  }
  const std::string guid = FormatDumpGuid(MakeVersion4Guid(random_bytes));
  std::filesystem::path path = directory / MakeDumpFileName(host, CurrentProcessId(), guid);

  const size_t units = CountUtf16Units(path.string());
  if (units < 1 || units > kMaxDumpPathUnits) {
    return CommandResult::Failure(kCategoryRefused, 0, "CRASH_DUMP_PATH_TOO_LONG");
  }
  out = std::move(path);
  return CommandResult::Success();
}

bool SelfManagedCrashHandler::Initialize(const HostCrashConfig& config, std::string_view host) {
  if (config.mode != kSelfManagedCrashMode) {
    return true;
  }
  std::filesystem::path path;
  if (!PrepareDumpFilePath(config, host, path).ok) {
    return false;
  }
  if (!SetProcessEnvironmentVariable(kDumpFileEnvironmentVariable, path.string(), "set dump path variable").ok) {
    return false;
  }
  return InstallCrashSignalHandlers().ok;
}

}  // namespace brimo_stack::local_runtime
