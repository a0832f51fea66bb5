// The portable steps of the atomic write: temporary names and the order of walk, write, re-walk.
#include "quay_tools_host/writes/atomic_file_writer.h"

#include <chrono>
#include <random>
#include <system_error>

#include "quay_tools_host/writes/write_path_checks.h"

namespace brimo_stack::quay_tools_host::internal {

std::string MakeUniqueToken() {
  std::random_device device;
  const uint64_t high = static_cast<uint32_t>(device());
  const uint64_t low = static_cast<uint32_t>(device());
  const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  return std::to_string((high << 32) | low) + "_" + std::to_string(now.count());
}

std::filesystem::path MakeTempSiblingPath(const std::filesystem::path& target) {
  std::filesystem::path::string_type text = target.native();
  text += kTempSuffixMarker;
  text += MakeUniqueToken();
  return std::filesystem::path(std::move(text));
}

CommandResult WriteFileAtomically(const std::filesystem::path& target, std::string_view bytes) {
  CommandResult parents = EnsureWritePathParents(target, {});
  if (!parents.ok) {
    return parents;
  }
  std::error_code error;
  if (std::filesystem::status(target, error).type() == std::filesystem::file_type::none) {
    return MakeFileError(FileErrorKind::kWriteFileFailed, MakeSystemCommandError("inspect target file", error.value()));
  }
  CommandResult written = WriteTempAndReplace(MakeTempSiblingPath(target), target, bytes);
  if (!written.ok) {
    return written;
  }
  return CheckWritePathComponents(target, {});
}

}  // namespace brimo_stack::quay_tools_host::internal
