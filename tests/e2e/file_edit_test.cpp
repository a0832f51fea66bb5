// file_edit through the built host: read-form recognition, results and every row of its refusals.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/host_command_fixture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::ReadWholeFile;

class FileEditE2eTest : public quay_test::HostCommandTest {
 protected:
  // The edit of `path_` unless the params name another path.
  json WithPath(json params) const {
    params["path"] = params.value("path", path_);
    return params;
  }
  uint64_t Replacements(json params) {
    return Data("file_edit", WithPath(std::move(params))).value("replacements", uint64_t{0});
  }

  std::string path_ = P("f.txt");
};

TEST_F(FileEditE2eTest, ReadFormOnEitherSideLosesItsNumbers) {
  dir_.WriteFile("f.txt", "one foo\ntwo bar\n");
  EXPECT_EQ(Replacements({{"old_content", "     7\tfoo"}, {"new_content", "     1\tbaz\n     2\tqux"}}), 1u);
  EXPECT_EQ(ReadWholeFile(path_), "one baz\nqux\ntwo bar\n");
  // Numbers that do not run on stay, and are then searched as text.
  dir_.WriteFile("f.txt", "     1\tfoo\n     3\tbar");
  EXPECT_EQ(Replacements({{"old_content", "     1\tfoo\n     3\tbar"}, {"new_content", ""}}), 1u);
  EXPECT_EQ(ReadWholeFile(path_), "");
  dir_.WriteFile("f.txt", "a\tb");
  EXPECT_EQ(Replacements({{"old_content", "\t"}, {"new_content", " "}}), 1u);
  EXPECT_EQ(ReadWholeFile(path_), "a b");
}

TEST_F(FileEditE2eTest, ReplaceAllCountsAndKeepsTheMode) {
  dir_.WriteFile("f.txt", "x-x-x");
  ASSERT_EQ(::chmod(path_.c_str(), 0751), 0);
  EXPECT_EQ(Replacements({{"old_content", "x"}, {"new_content", "yy"}, {"replace_all", true}}), 3u);
  EXPECT_EQ(ReadWholeFile(path_), "yy-yy-yy");
  struct stat info {};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0751u);
}

TEST_F(FileEditE2eTest, EveryRefusalHasItsMessageAndLeavesTheFileAlone) {
  dir_.WriteFile("f.txt", "dup dup");
  dir_.WriteFile("bad.txt", "\xC0\x80");
  dir_.WriteFile("ro.txt", "dup");
  ASSERT_EQ(::chmod((root_ / "ro.txt").c_str(), 0444), 0);
  fs::create_directory(root_ / "dir");
  fs::resize_file(dir_.WriteFile("big.txt", ""), 67108865);
  struct Row {
    json params;
    int code;
    std::string message;
  };
  const Row rows[] = {
      {{{"old_content", ""}}, 1, "INVALID_OLD_STRING: old_content is empty"},
      {{{"path", ""}, {"old_content", "a"}}, 1, "INVALID_FILE_PATH: path is empty"},
      {{{"path", P("none")}, {"old_content", "a"}}, 1001, "FILE_NOT_FOUND: file not found: " + P("none")},
      {{{"path", P("dir")}, {"old_content", "a"}}, 1, "INVALID_FILE_PATH: path is not a regular file: " + P("dir")},
      {{{"old_content", "a"}, {"policy", {{"whitelist_patterns", {"/nowhere/*"}}}}}, 1002,
       "PERMISSION_DENIED: FILE_ACCESS_DENIED: did not match any whitelist pattern"},
      {{{"path", P("big.txt")}, {"old_content", "a"}}, 0,
       "FILE_TOO_LARGE: editable file exceeds 67108864 bytes: " + P("big.txt")},
      {{{"path", P("bad.txt")}, {"old_content", "a"}}, 0,
       "UNSUPPORTED_ENCODING: file is not valid UTF-8: " + P("bad.txt")},
      {{{"old_content", "     1\t"}}, 1, "INVALID_OLD_STRING: old_content is empty after removing read line numbers"},
      {{{"old_content", "zzz"}}, 1003, "OLD_STRING_NOT_FOUND: old_content not found"},
      {{{"old_content", "dup"}}, 1004, "OLD_STRING_NOT_UNIQUE: old_content appears more than once"},
      {{{"path", P("ro.txt")}, {"old_content", "dup"}}, 1002,
       "PERMISSION_DENIED: FILE_ACCESS_DENIED: target file is read-only"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Refusal("file_edit", WithPath(row.params), 7, row.code), row.message) << row.params.dump();
  }
  EXPECT_EQ(ReadWholeFile(path_), "dup dup");
  EXPECT_EQ(ReadWholeFile(root_ / "ro.txt"), "dup");
  EXPECT_TRUE(quay_test::TempSiblingsIn(root_).empty());
}

}  // namespace
