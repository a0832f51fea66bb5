// Path preparation and resolution on real directories, links and missing paths.
#include <gtest/gtest.h>

#include <cerrno>

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

// An empty path, a missing one, a directory and a fifo are refused end to end by file_read and
// file_edit (e2e/file_read_test, e2e/file_edit_test): below a file is missing, a loop is no answer.
TEST_F(ResolveOnDiskTest, RequireRegularFileBelowAFileOrInALinkLoop) {
  dir_.WriteFile("dir/file", "x");
  fs::create_symlink(root_ / "loop", root_ / "loop");
  fs::path real;
  const CommandResult below = RequireRegularFile(root_.native(), "dir/file/x", real, FileMutationErrorKind::kNone);
  ASSERT_FALSE(below.ok);
  EXPECT_EQ(below.error->code, 1);
  EXPECT_EQ(below.error->message, "FILE_NOT_FOUND: " + (root_ / "dir/file/x").native());
  const CommandResult loop = RequireRegularFile(root_.native(), "loop", real, FileMutationErrorKind::kNone);
  ASSERT_FALSE(loop.ok);
  EXPECT_EQ(loop.error->code, ELOOP);
  EXPECT_EQ(loop.error->message, "INVALID_FILE_PATH: inspect file path failed: Too many levels of symbolic links");
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
