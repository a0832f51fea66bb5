// Path preparation and resolution on real directories, links and missing paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quay_tools_host/files/file_paths.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;

TEST(ResolveRequestPathTest, JoinsRelativeKeepsAbsoluteAndRefusesNul) {
  const std::string cwd = fs::current_path().native();
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"/w", "a/b", "/w/a/b"}, {"/w", "/abs", "/abs"},         {"/w/", "../x", "/x"}, {"/w", "../../../..", "/"},
      {"/w", "", "/w"},        {"/w", "a/./../b//", "/w/b"}, {"", "x", cwd + "/x"}};
  for (const auto& [base, path, expected] : cases) {
    fs::path logical;
    ASSERT_TRUE(ResolveRequestPath(base, path, logical).ok);
    EXPECT_EQ(logical.native(), expected) << base << " + " << path;
  }
  fs::path logical;
  const CommandResult nul = ResolveRequestPath("/w", std::string("/w/a\0b", 6), logical);
  ASSERT_FALSE(nul.ok);
  EXPECT_EQ(nul.error->message, "INVALID_FILE_PATH: path contains a NUL character");
}

class ResolveOnDiskTest : public ::testing::Test {
 protected:
  quay_test::TempDir dir_;
  fs::path root_ = fs::canonical(dir_.path());
};

TEST_F(ResolveOnDiskTest, RealPathFollowsLinksAndFailsOnMissing) {
  dir_.WriteFile("target/file.txt", "x");
  fs::create_directory_symlink(root_ / "target", root_ / "dirlink");
  fs::create_symlink(root_ / "dirlink/file.txt", root_ / "filelink");
  fs::path path = root_ / "filelink";
  ASSERT_TRUE(ResolveRealPath(path).ok);
  EXPECT_EQ(path, root_ / "target/file.txt");

  path = root_ / "missing";
  const CommandResult result = ResolveRealPath(path);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->category, 6);
  EXPECT_EQ(result.error->code, ENOENT);
  EXPECT_EQ(result.error->message, "INVALID_FILE_PATH: resolve real path failed: No such file or directory");
}

TEST_F(ResolveOnDiskTest, AllowMissingResolvesTheNearestAncestor) {
  fs::create_directory(root_ / "real");
  fs::create_directory_symlink(root_ / "real", root_ / "link");
  dir_.WriteFile("plain", "x");
  const std::pair<fs::path, fs::path> cases[] = {
      {root_ / "link/new/deeper.txt", root_ / "real/new/deeper.txt"},
      {root_ / "link", root_ / "real"},
      // A component that is a file makes the path "not a directory", which counts as not found.
      {root_ / "plain/child", root_ / "plain/child"},
      // Without any existing ancestor the logical path is the answer.
      {"relative-nowhere/x", "relative-nowhere/x"}};
  for (const auto& [logical, expected] : cases) {
    fs::path real;
    ASSERT_TRUE(ResolveRealPathAllowMissing(logical, real).ok) << logical;
    EXPECT_EQ(real, expected) << logical;
  }
}

struct RegularFileCase {
  const char* name;
  const char* path;  // below the temp dir
  FileMutationErrorKind not_found_kind;
  int code;
  const char* message_head;
};

class RequireRegularFileTest : public ResolveOnDiskTest, public ::testing::WithParamInterface<RegularFileCase> {};

TEST_P(RequireRegularFileTest, RefusesWithItsMessage) {
  dir_.WriteFile("dir/file", "x");
  ASSERT_EQ(::mkfifo((root_ / "fifo").c_str(), 0600), 0);
  fs::create_symlink(root_ / "loop", root_ / "loop");
  const RegularFileCase& c = GetParam();
  fs::path real;
  const std::string path = std::string(c.path).empty() ? "" : (root_ / c.path).native();
  const CommandResult result = RequireRegularFile(root_.native(), path, real, c.not_found_kind);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->code, c.code);
  EXPECT_TRUE(result.error->message.starts_with(c.message_head)) << result.error->message;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RequireRegularFileTest,
    ::testing::Values(
        RegularFileCase{"empty", "", FileMutationErrorKind::kNone, 1, "INVALID_FILE_PATH: path is empty"},
        RegularFileCase{"missing", "nope", FileMutationErrorKind::kNone, 1, "FILE_NOT_FOUND: /"},
        RegularFileCase{"missing_as_mutation", "nope", FileMutationErrorKind::kFileNotFound, 1001,
                        "FILE_NOT_FOUND: file not found: /"},
        RegularFileCase{"below_a_file", "dir/file/x", FileMutationErrorKind::kNone, 1, "FILE_NOT_FOUND: /"},
        RegularFileCase{"directory", "dir", FileMutationErrorKind::kNone, 1,
                        "INVALID_FILE_PATH: path is not a regular file: /"},
        RegularFileCase{"fifo", "fifo", FileMutationErrorKind::kNone, 1,
                        "INVALID_FILE_PATH: path is not a regular file: /"},
        RegularFileCase{"link_loop", "loop", FileMutationErrorKind::kNone, ELOOP,
                        "INVALID_FILE_PATH: inspect file path failed: "}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ResolveOnDiskTest, RequireRegularFileGivesTheRealPath) {
  dir_.WriteFile("a/file", "x");
  fs::create_symlink(root_ / "a/file", root_ / "link");
  fs::path real;
  ASSERT_TRUE(RequireRegularFile(root_.native(), "link", real, FileMutationErrorKind::kNone).ok);
  EXPECT_EQ(real, root_ / "a/file");
}

TEST_F(ResolveOnDiskTest, RequireSearchRootAcceptsDirectoriesAndDefaultsToBase) {
  fs::create_directory(root_ / "tree");
  fs::path real;
  ASSERT_TRUE(RequireSearchRoot((root_ / "tree").native(), "", real).ok);
  EXPECT_EQ(real, root_ / "tree");
  const CommandResult missing = RequireSearchRoot(root_.native(), "gone", real);
  ASSERT_FALSE(missing.ok);
  EXPECT_EQ(missing.error->message, "FILE_NOT_FOUND: " + (root_ / "gone").native());
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
