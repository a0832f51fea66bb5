// Appends on real files: refusals of what is not a regular file, and of the same file twice.
#include "quay_tools_host/writes/file_append.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;
using brimo_stack::CommandResult;
using quay_test::ReadWholeFile;

class FileAppend : public ::testing::Test {
 protected:
  quay_test::TempDir dir_;
  uint64_t written_ = 0;
};

std::string Outcome(const CommandResult& result) { return result.ok ? "ok" : result.error->message; }

TEST_F(FileAppend, AppendToANonRegularTargetIsRefused) {
  const fs::path real = dir_.WriteFile("real", "r");
  fs::create_symlink(real, dir_.path() / "link");
  fs::create_directory(dir_.path() / "dir");
  ASSERT_EQ(::mkfifo((dir_.path() / "fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "dir", "fifo"}) {
    EXPECT_EQ(Outcome(AppendBytesToFile(dir_.path() / name, "x", written_)),
              "WRITE_FILE_FAILED: append target must be a regular non-reparse file")
        << name;
  }
  EXPECT_EQ(ReadWholeFile(real), "r");
}

TEST_F(FileAppend, AppendOfTheSameFileThroughAHardLinkIsRefusedBeforeAnyByteMoves) {
  const fs::path file = dir_.WriteFile("one", "data");
  fs::create_hard_link(file, dir_.path() / "two");
  EXPECT_EQ(Outcome(AppendFileToFile(dir_.path() / "two", file, written_)),
            "WRITE_FILE_FAILED: local_path and append target must be different files");
  EXPECT_EQ(ReadWholeFile(file), "data");

  const fs::path other = dir_.WriteFile("other", "+more");
  ASSERT_EQ(Outcome(AppendFileToFile(other, file, written_)), "ok");
  EXPECT_EQ(written_, 5u);
  EXPECT_EQ(ReadWholeFile(file), "data+more");
}

}  // namespace
