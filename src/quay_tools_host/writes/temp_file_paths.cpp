// The sub-path rules and the free-name search of file_create_temp.
#include "quay_tools_host/writes/temp_file_paths.h"

#include <system_error>

#include "quay_tools_host/files/file_errors.h"
#include "quay_tools_host/files/file_paths.h"

namespace brimo_stack::quay_tools_host::internal {

std::optional<std::string> ValidateTempSubPath(std::string_view sub_path) {
  if (sub_path.empty()) {
    return "sub_path is empty";
  }
  if (sub_path.back() == '/') {
    return "sub_path must include a file name";
  }
  if (sub_path.find('\\') != std::string_view::npos) {
    return "sub_path must use '/' separators";
  }
  size_t start = 0;
  while (true) {
    const size_t end = sub_path.find('/', start);
    const std::string_view segment =
        sub_path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (segment.empty() || segment == "." || segment == "..") {
      return "sub_path contains an invalid path segment";
    }
    if (end == std::string_view::npos) {
      break;
    }
    start = end + 1;
  }
  const std::filesystem::path as_path{std::string(sub_path)};
  if (IsFullyQualifiedPath(as_path) || as_path.lexically_normal() != as_path) {
    return "sub_path must be a normalized relative path";
  }
  return std::nullopt;
}

CommandResult AllocateUniqueTempPath(const std::filesystem::path& target, std::filesystem::path& final_path) {
  const std::filesystem::path parent = target.parent_path();
  const std::string stem = target.stem().native();
  const std::string extension = target.extension().native();
  for (int n = 0; n < kTempNameAttempts; ++n) {
    const std::filesystem::path candidate =
        n == 0 ? target
               : NormalizeFilePath(parent / (stem + " (" + std::to_string(n) + ")" + extension), /*force_long=*/false);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::symlink_status(candidate, error);
    if (status.type() == std::filesystem::file_type::none) {
      return MakeFileErrorForPath(FileErrorKind::kWriteFileFailed, "inspect temp file", candidate, error);
    }
    if (status.type() == std::filesystem::file_type::not_found) {
      final_path = candidate;
      return CommandResult::Success();
    }
  }
  return CommandResult::Failure(kCategoryRefused, 1, "failed to allocate a unique temp file path");
}

}  // namespace brimo_stack::quay_tools_host::internal
