// The write-path walks on real directories, files and symbolic links.
#include "quay_tools_host/writes/write_path_checks.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;

TEST(ListPathsFromTop, StopsAtRootOrTheTop) {
  EXPECT_EQ(ListPathsFromTop("/a/b/c", "/a"), (std::vector<fs::path>{"/a", "/a/b", "/a/b/c"}));
  EXPECT_EQ(ListPathsFromTop("/a/b", ""), (std::vector<fs::path>{"/", "/a", "/a/b"}));
  EXPECT_TRUE(ListPathsFromTop("", "").empty());
}

TEST(EnsureParentDirectories, CreatesMissingLevelsButNothingBelowAFileOrThroughALink) {
  quay_test::TempDir dir;
  ASSERT_TRUE(EnsureParentDirectories(dir.path() / "a/b/c", {}).ok);
  EXPECT_TRUE(fs::is_directory(dir.path() / "a/b/c"));

  const fs::path file = dir.WriteFile("plain", "x");
  const auto blocked = EnsureParentDirectories(dir.path() / "plain/sub/deeper", {});
  EXPECT_EQ(blocked.error->message, "INVALID_FILE_PATH: write path parent is not a directory: " + file.string());
  EXPECT_FALSE(fs::exists(dir.path() / "plain/sub"));

  fs::create_directory(dir.path() / "elsewhere");
  fs::create_directory_symlink(dir.path() / "elsewhere", dir.path() / "link");
  const auto linked = EnsureParentDirectories(dir.path() / "link/new", {});
  EXPECT_EQ(linked.error->message,
            "INVALID_FILE_PATH: write path contains a reparse point: " + (dir.path() / "link").string());
  EXPECT_FALSE(fs::exists(dir.path() / "elsewhere/new"));
}

TEST(EnsureParentDirectories, ConcurrentCreatorsBothSucceed) {
  quay_test::TempDir dir;
  for (int round = 0; round < 20; ++round) {
    const fs::path target = dir.path() / std::to_string(round) / "x/y/z";
    bool first = false;
    bool second = false;
    std::thread other([&] { first = EnsureParentDirectories(target, {}).ok; });
    second = EnsureParentDirectories(target, {}).ok;
    other.join();
    EXPECT_TRUE(first && second) << round;
  }
}

TEST(CheckWritePathComponents, RefusesLinksAnywhereIncludingTheTarget) {
  quay_test::TempDir dir;
  fs::create_directory(dir.path() / "real");
  dir.WriteFile("real/file", "x");
  fs::create_directory_symlink(dir.path() / "real", dir.path() / "dirlink");
  fs::create_symlink(dir.path() / "real/file", dir.path() / "real/filelink");
  fs::create_symlink(dir.path() / "nowhere", dir.path() / "real/dangling");

  EXPECT_TRUE(CheckWritePathComponents(dir.path() / "real/file", {}).ok);
  EXPECT_TRUE(CheckWritePathComponents(dir.path() / "real/missing/deeper", {}).ok);
  const struct {
    fs::path path;
    fs::path named;
  } refused[] = {
      {dir.path() / "dirlink/file", dir.path() / "dirlink"},
      {dir.path() / "real/filelink", dir.path() / "real/filelink"},
      {dir.path() / "real/dangling", dir.path() / "real/dangling"},
  };
  for (const auto& row : refused) {
    const auto result = CheckWritePathComponents(row.path, {});
    ASSERT_FALSE(result.ok) << row.path;
    EXPECT_EQ(result.error->message, "INVALID_FILE_PATH: write path contains a reparse point: " + row.named.string());
    EXPECT_EQ(result.error->category, 7);
  }
  const auto through_file = CheckWritePathComponents(dir.path() / "real/file/x", {});
  EXPECT_EQ(through_file.error->message,
            "INVALID_FILE_PATH: write path parent is not a directory: " + (dir.path() / "real/file").string());
}

TEST(EnsureWritePathParents, LooksAtNothingAboveTheRoot) {
  quay_test::TempDir dir;
  fs::create_directory(dir.path() / "real");
  fs::create_directory_symlink(dir.path() / "real", dir.path() / "link");
  // The link is above the root: not the walk's business.
  EXPECT_TRUE(EnsureWritePathParents(dir.path() / "link/root/d/f.bin", dir.path() / "link/root").ok);
  EXPECT_TRUE(fs::is_directory(dir.path() / "real/root/d"));
  // The root itself is walked.
  fs::create_directory_symlink(dir.path() / "real", dir.path() / "real/rootlink");
  EXPECT_FALSE(EnsureWritePathParents(dir.path() / "real/rootlink/f", dir.path() / "real/rootlink").ok);
}

}  // namespace
