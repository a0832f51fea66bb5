// Writes a dump of the whole process at a fatal fault, in crash mode 2.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "brimo_stack/local_runtime/host_launch_config.h"
#include "brimo_stack_common/command_result.h"

namespace brimo_stack::local_runtime {

// The only channel between set-up and the handler: the fault path must not allocate, so the
// path is computed once here and read back from the environment.
inline constexpr std::string_view kDumpFileEnvironmentVariable = "BRIMO_STACK_INTERNAL_DUMP_FILE";
inline constexpr std::string_view kDumpDirectoryName = "brimo_stack";
inline constexpr std::string_view kDumpFileExtension = ".dmp";
// The longest dump path, counted in UTF-16 units as the wide-character platforms count it.
inline constexpr size_t kMaxDumpPathUnits = 32767;
inline constexpr uint8_t kSelfManagedCrashMode = 2;

class SelfManagedCrashHandler {
 public:
  // False when a handler was asked for and isn't installed; modes 0 and 1 install nothing.
  [[nodiscard]] bool Initialize(const HostCrashConfig& config, std::string_view host);
};

// A GUID in the field layout its text form prints.
struct DumpGuid {
  uint32_t data1 = 0;
  uint16_t data2 = 0;
  uint16_t data3 = 0;
  std::array<uint8_t, 8> data4{};
};

// A version 4 (random) GUID: the bytes in text order, with the version and variant bits set.
[[nodiscard]] DumpGuid MakeVersion4Guid(const std::array<uint8_t, 16>& random_bytes);

// Lower-case 8-4-4-4-12 hex.
[[nodiscard]] std::string FormatDumpGuid(const DumpGuid& guid);

// "<host>_<pid>_<guid>.dmp".
[[nodiscard]] std::string MakeDumpFileName(std::string_view host, uint64_t process_id, std::string_view guid_text);

// The whole path of this process's dump below `config.dump_dir`, made absolute, with its
// directory created. Sets nothing in the environment and installs nothing.
[[nodiscard]] CommandResult PrepareDumpFilePath(const HostCrashConfig& config, std::string_view host,
                                                std::filesystem::path& out);

// Platform layer.

// Bytes from the system's random source.
[[nodiscard]] CommandResult FillRandomBytes(std::span<uint8_t> out);

// Installs the fault handler for the whole process, with an alternate stack for the caller.
[[nodiscard]] CommandResult InstallCrashSignalHandlers();

}  // namespace brimo_stack::local_runtime
