// A fresh directory per test, removed with everything in it afterwards.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quay_test {

class TempDir {
 public:
  // Below `base`, or below $TMPDIR (else /tmp) when `base` is empty.
  explicit TempDir(const std::filesystem::path& base = {});
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  // Writes `content` to `relative` below the directory (an absolute path as it is), creating parents.
  std::filesystem::path WriteFile(std::string_view relative, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

[[nodiscard]] std::string ReadWholeFile(const std::filesystem::path& path);
// Names in `dir` that look like a writer's temporary sibling; a finished write leaves none.
[[nodiscard]] std::vector<std::string> TempSiblingsIn(const std::filesystem::path& dir);

}  // namespace quay_test
