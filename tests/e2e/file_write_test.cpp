// file_write and file_create_temp through the built host: results and every row of their refusals.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/host_command_fixture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::ReadWholeFile;

using FileWriteE2eTest = quay_test::HostCommandTest;

TEST_F(FileWriteE2eTest, ContentInReadFormLosesItsNumbersOnlyWhenTheyRunOn) {
  EXPECT_EQ(Data("file_write", {{"path", P("n/a.txt")}, {"content", "     1\tA\n     2\tB\n"}}),
            json({{"bytes_written", 4}}));
  EXPECT_EQ(ReadWholeFile(root_ / "n/a.txt"), "A\nB\n");
  Data("file_write", {{"path", P("n/a.txt")}, {"content", "     2\tB\n     1\tA\n"}});
  EXPECT_EQ(ReadWholeFile(root_ / "n/a.txt"), "     2\tB\n     1\tA\n");
  Data("file_write", {{"base_cwd", root_.string()}, {"path", "n/a.txt"}, {"content", ""}});
  EXPECT_EQ(ReadWholeFile(root_ / "n/a.txt"), "");
}

TEST_F(FileWriteE2eTest, AppendCreatesThenGrows) {
  EXPECT_EQ(Data("file_write", {{"path", P("log")}, {"content", "a"}, {"append", true}}), json({{"bytes_written", 1}}));
  EXPECT_EQ(Data("file_write", {{"path", P("log")}, {"content", "b"}, {"append", true}}), json({{"bytes_written", 1}}));
  EXPECT_EQ(ReadWholeFile(root_ / "log"), "ab");
}

TEST_F(FileWriteE2eTest, LocalPathCopiesBytesUntouched) {
  // Several copy blocks, so that a copy onto itself that truncated its source first would lose them.
  std::string bytes("\xff\x00     1\tx\n", 11);
  bytes.append(200000, 'q');
  dir_.WriteFile("src.bin", bytes);
  EXPECT_EQ(Data("file_write", {{"path", P("copy.bin")}, {"local_path", P("src.bin")}}),
            json({{"bytes_written", bytes.size()}}));
  EXPECT_EQ(ReadWholeFile(root_ / "copy.bin"), bytes);
  // Onto itself without append goes through a temporary and keeps the content.
  Data("file_write", {{"path", P("src.bin")}, {"local_path", P("src.bin")}});
  EXPECT_EQ(ReadWholeFile(root_ / "src.bin"), bytes);
  EXPECT_TRUE(quay_test::TempSiblingsIn(root_).empty());
}

TEST_F(FileWriteE2eTest, EveryRefusalHasItsMessage) {
  dir_.WriteFile("plain", "p");
  dir_.WriteFile("ro.txt", "old");
  ASSERT_EQ(::chmod((root_ / "ro.txt").c_str(), 0444), 0);
  struct Row {
    json params;
    int code;
    std::string message;
  };
  const Row rows[] = {
      {{{"path", ""}}, 1, "INVALID_FILE_PATH: path is empty"},
      {{{"path", "x"}}, 1, "INVALID_ARGUMENT: exactly one of content or local_path must be provided"},
      {{{"path", "x"}, {"content", ""}, {"local_path", "y"}}, 1,
       "INVALID_ARGUMENT: exactly one of content or local_path must be provided"},
      {{{"path", P("plain/x")}, {"content", "c"}}, 1,
       "INVALID_FILE_PATH: write path parent is not a directory: " + P("plain")},
      {{{"path", P("ro.txt")}, {"content", "c"}}, 1002, "PERMISSION_DENIED: FILE_ACCESS_DENIED: target file is read-only"},
      {{{"path", P("deny/x")}, {"content", "c"}, {"policy", {{"blacklist_patterns", {P("deny/*")}}}}}, 1002,
       "PERMISSION_DENIED: FILE_ACCESS_DENIED: matched blacklist pattern: " + P("deny/*")},
      {{{"path", P("x")}, {"content", "c"}, {"policy", {{"read_only_patterns", {P("x")}}}}}, 1002,
       "PERMISSION_DENIED: FILE_ACCESS_DENIED: matched read-only pattern: " + P("x")},
      {{{"path", P("x")}, {"local_path", P("missing")}}, 1001, "FILE_NOT_FOUND: file not found: " + P("missing")},
      {{{"path", P("x")}, {"local_path", P("plain")}, {"policy", {{"blacklist_patterns", {P("plain")}}}}}, 1002,
       "PERMISSION_DENIED: FILE_ACCESS_DENIED: matched blacklist pattern: " + P("plain")},
      {{{"path", P("plain")}, {"local_path", P("plain")}, {"append", true}}, 1,
       "WRITE_FILE_FAILED: local_path and append target must be different files"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Refusal("file_write", row.params, 7, row.code), row.message) << row.params.dump();
  }
  EXPECT_EQ(ReadWholeFile(root_ / "ro.txt"), "old");
  EXPECT_EQ(ReadWholeFile(root_ / "plain"), "p");
}

TEST_F(FileWriteE2eTest, CreateTempFindsAFreeNameBelowTheRoot) {
  dir_.WriteFile("t/a.txt", "");
  dir_.WriteFile("t/a (1).txt", "");
  EXPECT_EQ(Data("file_create_temp", {{"root", P("t")}, {"sub_path", "a.txt"}, {"content_base64", "aGk="}}),
            json({{"path", P("t/a (2).txt")}, {"file_name", "a (2).txt"}, {"sub_path", "a (2).txt"},
                  {"sub_path_changed", true}}));
  EXPECT_EQ(ReadWholeFile(root_ / "t/a (2).txt"), "hi");
  // A missing root is made when its parent exists, with what lies below it.
  EXPECT_EQ(Data("file_create_temp", {{"root", P("new_root")}, {"sub_path", "d/e/f.bin"}, {"content_base64", ""}}),
            json({{"path", P("new_root/d/e/f.bin")}, {"file_name", "f.bin"}, {"sub_path", "d/e/f.bin"},
                  {"sub_path_changed", false}}));
  EXPECT_EQ(ReadWholeFile(root_ / "new_root/d/e/f.bin"), "");
}

TEST_F(FileWriteE2eTest, CreateTempWalksOnlyFromTheRootDown) {
  fs::create_directory(root_ / "real");
  fs::create_directory_symlink(root_ / "real", root_ / "above");
  Data("file_create_temp", {{"root", P("above/r")}, {"sub_path", "f"}, {"content_base64", "eA=="}});
  EXPECT_EQ(ReadWholeFile(root_ / "real/r/f"), "x");
  fs::create_directory_symlink(root_ / "real", root_ / "real/r/inner");
  EXPECT_EQ(Refusal("file_create_temp", {{"root", P("real/r")}, {"sub_path", "inner/f"}, {"content_base64", ""}}, 7, 1),
            "INVALID_FILE_PATH: write path contains a reparse point: " + P("real/r/inner"));
}

TEST_F(FileWriteE2eTest, CreateTempRefusals) {
  struct Row {
    json params;
    std::string message;
  };
  const Row rows[] = {
      {{{"root", ""}, {"sub_path", ""}}, "temp file root is empty"},
      {{{"root", "/r"}, {"sub_path", "a/../b"}}, "sub_path contains an invalid path segment"},
      {{{"root", "/r"}, {"sub_path", "a"}, {"content_base64", "aGk=\n"}}, "content_base64 is invalid"},
      {{{"root", "rel"}, {"sub_path", "a"}, {"content_base64", ""}}, "temp file root must be absolute"},
      // The system would cut either path at the NUL and write where nobody asked.
      {{{"root", P("t") + std::string("\0/x", 3)}, {"sub_path", "a"}, {"content_base64", ""}},
       "path contains a NUL character"},
      {{{"root", P("t")}, {"sub_path", std::string("a\0b", 3)}, {"content_base64", ""}}, "path contains a NUL character"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Refusal("file_create_temp", row.params, 7, 1), row.message) << row.params.dump();
  }
  EXPECT_FALSE(fs::exists(root_ / "t"));
  // 2796203 groups of four characters decode to 8388609 bytes, one past the limit.
  std::string base64(2796203 * 4, 'A');
  EXPECT_EQ(Refusal("file_create_temp", {{"root", P("t")}, {"sub_path", "big"}, {"content_base64", base64}}, 7, 1),
            "decoded content exceeds the 8 MiB inline limit");
}

}  // namespace
