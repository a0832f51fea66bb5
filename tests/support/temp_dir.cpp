// A fresh directory per test, removed with everything in it afterwards.
#include "support/temp_dir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quay_test {

TempDir::TempDir(const std::filesystem::path& base) {
  const char* tmpdir = std::getenv("TMPDIR");
  const std::string parent =
      !base.empty() ? base.native() : (tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp");
  std::string pattern = parent + "/quay_test_XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code error;
  // Tests may leave directories without permissions behind; give them back before removing.
  for (auto it = std::filesystem::recursive_directory_iterator(
           path_, std::filesystem::directory_options::skip_permission_denied, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_directory(error) && !it->is_symlink(error)) {
      ::chmod(it->path().c_str(), 0700);
    }
  }
  ::chmod(path_.c_str(), 0700);
  std::filesystem::remove_all(path_, error);
}

std::filesystem::path TempDir::WriteFile(std::string_view relative, std::string_view content) const {
  const std::filesystem::path target = path_ / relative;
  std::filesystem::create_directories(target.parent_path());
  std::ofstream out(target, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out) {
    throw std::runtime_error("write test file failed: " + target.string());
  }
  return target;
}

std::string ReadWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::vector<std::string> TempSiblingsIn(const std::filesystem::path& dir) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().filename().native().find(".brimo_stack_tmp_") != std::string::npos) {
      found.push_back(entry.path().filename().native());
    }
  }
  return found;
}

}  // namespace quay_test
