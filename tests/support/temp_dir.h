// A fresh directory per test, removed with everything in it afterwards.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace quay_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  // Writes `content` to `relative` below the directory, creating parents.
  std::filesystem::path WriteFile(std::string_view relative, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

[[nodiscard]] std::string ReadWholeFile(const std::filesystem::path& path);

}  // namespace quay_test
