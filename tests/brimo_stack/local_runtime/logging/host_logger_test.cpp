// The configured logger in-process: letters, flushing, the silent levels and rotation.
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <filesystem>
#include <string>
#include <vector>

#include "brimo_stack/local_runtime/logging/host_logger.h"
#include "brimo_stack/local_runtime/logging/structured_log.h"
#include "support/temp_dir.h"

namespace brimo_stack::local_runtime {
namespace {

std::vector<std::filesystem::path> LogFiles(const quay_test::TempDir& dir) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path() / "marsh_console_host")) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class HostLoggerTest : public ::testing::Test {
 protected:
  void TearDown() override { DisableHostLogger(); }
  quay_test::TempDir dir_;
};

TEST_F(HostLoggerTest, EveryLevelHasItsLetterAndTraceWaitsForTheNextFlush) {
  ConfigureHostLogger("marsh_console_host", {dir_.path().string(), 1});
  LogStructured(LogLevel::kTrace, "c", "m", nlohmann::json::object(), BRIMO_LOG_LOCATION());
  const auto files = LogFiles(dir_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(quay_test::ReadWholeFile(files[0]), "");
  for (const LogLevel level : {LogLevel::kDebug, LogLevel::kInfo, LogLevel::kWarning, LogLevel::kError,
                               LogLevel::kCritical}) {
    LogStructured(level, "c", "m", {{"b", 1}, {"a", "\xFF"}}, BRIMO_LOG_LOCATION());
  }
  const std::string log = quay_test::ReadWholeFile(files[0]);
  std::string letters;
  for (size_t at = log.find(")["); at != std::string::npos; at = log.find(")[", at + 1)) letters += log[at + 2];
  EXPECT_EQ(letters, "tDIWEF");
  EXPECT_NE(log.find("][host_logger_test.cpp:"), std::string::npos) << log;
  EXPECT_NE(log.find("] component=c, message=m, fields={\"a\":\"\xEF\xBF\xBD\",\"b\":1}\r\n"), std::string::npos) << log;
}

TEST_F(HostLoggerTest, OffLevelsAndEmptyDirectoryWriteNothing) {
  ConfigureHostLogger("marsh_console_host", {dir_.path().string(), 9});
  LogStructured(LogLevel::kCritical, "c", "m", nlohmann::json::object(), BRIMO_LOG_LOCATION());
  const auto files = LogFiles(dir_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(std::filesystem::file_size(files[0]), 0u);

  quay_test::TempDir other;
  ConfigureHostLogger("marsh_console_host", {"", 3});
  ConfigureHostLogger("", {other.path().string(), 3});
  ConfigureHostLogger("marsh_console_host", {other.path().string(), 0});
  EXPECT_TRUE(std::filesystem::is_empty(other.path()));
}

TEST_F(HostLoggerTest, RotatesAtTenMebibytesAndKeepsThree) {
  ConfigureHostLogger("marsh_console_host", {dir_.path().string(), 3});
  const std::string chunk(64 * 1024, 'x');
  for (int i = 0; i < 16 * 45; ++i) {  // 45 MiB: four files, the oldest rotated away
    SPDLOG_INFO("{}", chunk);
  }
  const auto files = LogFiles(dir_);
  ASSERT_EQ(files.size(), 4u);
  for (const auto& file : files) {
    EXPECT_LE(std::filesystem::file_size(file), 10u * 1024 * 1024 + chunk.size() + 200) << file;
  }
}

}  // namespace
}  // namespace brimo_stack::local_runtime
