// The atomic writer and the appends on real files: names, permissions, ACLs, refusals, leftovers.
#include "quay_tools_host/atomic_file_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;
using brimo_stack::CommandResult;
using quay_test::ReadWholeFile;

// Names in the directory that look like a temporary sibling.
std::vector<std::string> Leftovers(const fs::path& dir) {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().find(".brimo_stack_tmp_") != std::string::npos) {
      found.push_back(entry.path().filename().string());
    }
  }
  return found;
}

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0);
  return info.st_mode & 07777;
}

TEST(MakeTempSiblingPath, AppendsMarkerRandomAndClockToTheFullName) {
  const std::string temp = MakeTempSiblingPath("/w/a.txt").string();
  const std::string prefix = "/w/a.txt.brimo_stack_tmp_";
  ASSERT_TRUE(temp.starts_with(prefix)) << temp;
  const std::string token = temp.substr(prefix.size());
  const size_t underscore = token.find('_');
  ASSERT_NE(underscore, std::string::npos) << temp;
  EXPECT_GT(underscore, 0u);
  EXPECT_LT(underscore + 1, token.size());
  EXPECT_EQ(token.find_first_not_of("0123456789_"), std::string::npos) << temp;
  EXPECT_EQ(token.find('_', underscore + 1), std::string::npos) << temp;
  EXPECT_NE(MakeUniqueToken(), MakeUniqueToken());
}

TEST(WriteFileAtomically, CreatesParentsAndAnEmptyFileWithTheUsualMode) {
  quay_test::TempDir dir;
  const fs::path target = dir.path() / "x/y/new.txt";
  CommandResult failure;
  ASSERT_TRUE(WriteFileAtomically(target, "", failure)) << failure.error->message;
  EXPECT_EQ(ReadWholeFile(target), "");
  const mode_t mask = ::umask(022);
  ::umask(mask);
  EXPECT_EQ(ModeOf(target), 0666 & ~mask);
  EXPECT_TRUE(Leftovers(target.parent_path()).empty());
}

TEST(WriteFileAtomically, ReplacementKeepsModeAndAccessAcl) {
  quay_test::TempDir dir;
  const fs::path target = dir.WriteFile("keep.txt", "old");
  ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
  // A version-2 access ACL: owner rw, user 65534 r, group r, mask r, other none.
  const unsigned char acl[] = {2, 0, 0, 0,                                //
                               1, 0, 6, 0, 0xff, 0xff, 0xff, 0xff,        //
                               2, 0, 4, 0, 0xfe, 0xff, 0, 0,              //
                               4, 0, 4, 0, 0xff, 0xff, 0xff, 0xff,        //
                               0x10, 0, 4, 0, 0xff, 0xff, 0xff, 0xff,     //
                               0x20, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};
  if (::setxattr(target.c_str(), "system.posix_acl_access", acl, sizeof(acl), 0) != 0) {
    GTEST_SKIP() << "no POSIX ACLs on this file system: " << std::strerror(errno);
  }
  const mode_t mode_with_acl = ModeOf(target);
  CommandResult failure;
  ASSERT_TRUE(WriteFileAtomically(target, "new", failure)) << failure.error->message;
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(ModeOf(target), mode_with_acl);
  std::vector<unsigned char> copied(128);
  const ssize_t size = ::getxattr(target.c_str(), "system.posix_acl_access", copied.data(), copied.size());
  ASSERT_EQ(size, static_cast<ssize_t>(sizeof(acl)));
  EXPECT_EQ(std::memcmp(copied.data(), acl, sizeof(acl)), 0);
}

TEST(WriteFileAtomically, ReadOnlyTargetIsRefusedAndLeavesNothingBehind) {
  quay_test::TempDir dir;
  const fs::path target = dir.WriteFile("ro.txt", "old");
  ASSERT_EQ(::chmod(target.c_str(), 0444), 0);
  CommandResult failure;
  ASSERT_FALSE(WriteFileAtomically(target, "new", failure));
  EXPECT_EQ(failure.error->message, "FILE_ACCESS_DENIED: target file is read-only");
  EXPECT_EQ(failure.error->category, 6);
  EXPECT_EQ(failure.error->code, EACCES);
  EXPECT_EQ(ReadWholeFile(target), "old");
  EXPECT_TRUE(Leftovers(dir.path()).empty());
}

TEST(WriteFileAtomically, DirectoryTargetFailsAtTheRename) {
  quay_test::TempDir dir;
  fs::create_directory(dir.path() / "d");
  CommandResult failure;
  ASSERT_FALSE(WriteFileAtomically(dir.path() / "d", "x", failure));
  EXPECT_EQ(failure.error->message, "WRITE_FILE_FAILED: atomically replace file failed: Is a directory");
  EXPECT_TRUE(fs::is_directory(dir.path() / "d"));
  EXPECT_TRUE(Leftovers(dir.path()).empty());
}

TEST(WriteFileAtomically, LinkAtTheTargetOrOnTheWayIsRefused) {
  quay_test::TempDir dir;
  const fs::path outside = dir.WriteFile("outside/secret", "s");
  fs::create_symlink(outside, dir.path() / "to_file");
  fs::create_directory_symlink(outside.parent_path(), dir.path() / "to_dir");
  for (const fs::path& target : {dir.path() / "to_file", dir.path() / "to_dir/secret"}) {
    CommandResult failure;
    ASSERT_FALSE(WriteFileAtomically(target, "pwned", failure)) << target;
    EXPECT_TRUE(failure.error->message.starts_with("INVALID_FILE_PATH: write path contains a reparse point: "));
  }
  EXPECT_EQ(ReadWholeFile(outside), "s");
}

TEST(WriteTempAndReplace, ExistingTemporaryNameIsNeverOverwritten) {
  quay_test::TempDir dir;
  const fs::path squatter = dir.WriteFile("t.txt.brimo_stack_tmp_1_1", "mine");
  CommandResult failure;
  ASSERT_FALSE(WriteTempAndReplace(squatter, dir.path() / "t.txt", "x", failure));
  EXPECT_EQ(failure.error->message, "WRITE_FILE_FAILED: create temporary file failed: File exists");
  EXPECT_EQ(ReadWholeFile(squatter), "mine");
  EXPECT_FALSE(fs::exists(dir.path() / "t.txt"));
}

TEST(MoveFileWithRetry, CreateModeRefusesAnExistingTarget) {
  quay_test::TempDir dir;
  const fs::path temp = dir.WriteFile("a", "new");
  const fs::path target = dir.WriteFile("b", "old");
  int error = 0;
  EXPECT_FALSE(MoveFileWithRetry(temp, target, MoveFileMode::kCreate, error));
  EXPECT_EQ(error, EEXIST);
  EXPECT_TRUE(MoveFileWithRetry(temp, target, MoveFileMode::kReplace, error));
  EXPECT_EQ(ReadWholeFile(target), "new");
}

TEST(CopyFileAtomically, CopyOntoItselfKeepsTheContent) {
  quay_test::TempDir dir;
  const fs::path file = dir.WriteFile("same.bin", std::string(200000, 'q'));
  uint64_t written = 0;
  CommandResult failure;
  ASSERT_TRUE(CopyFileAtomically(file, file, FileErrorKind::kWriteFileFailed, written, failure));
  EXPECT_EQ(written, 200000u);
  EXPECT_EQ(ReadWholeFile(file), std::string(200000, 'q'));
  EXPECT_TRUE(Leftovers(dir.path()).empty());
}

TEST(CopyFileAtomically, SourceThatIsALinkOrADirectoryIsRefused) {
  quay_test::TempDir dir;
  const fs::path real = dir.WriteFile("real", "r");
  fs::create_symlink(real, dir.path() / "link");
  fs::create_directory(dir.path() / "dir");
  for (const fs::path& source : {dir.path() / "link", dir.path() / "dir"}) {
    uint64_t written = 0;
    CommandResult failure;
    ASSERT_FALSE(CopyFileAtomically(source, dir.path() / "out", FileErrorKind::kExportFileFailed, written, failure));
    EXPECT_EQ(failure.error->message, "EXPORT_FILE_FAILED: local_path must be a regular non-reparse file");
  }
  EXPECT_FALSE(fs::exists(dir.path() / "out"));
  EXPECT_TRUE(Leftovers(dir.path()).empty());
}

TEST(AppendBytesToFile, CreatesAndGrows) {
  quay_test::TempDir dir;
  const fs::path target = dir.path() / "log.txt";
  uint64_t written = 0;
  CommandResult failure;
  ASSERT_TRUE(AppendBytesToFile(target, "a\n", written, failure));
  ASSERT_TRUE(AppendBytesToFile(target, "b\n", written, failure));
  EXPECT_EQ(written, 2u);
  EXPECT_EQ(ReadWholeFile(target), "a\nb\n");
}

TEST(AppendBytesToFile, NonRegularTargetsAreRefused) {
  quay_test::TempDir dir;
  const fs::path real = dir.WriteFile("real", "r");
  fs::create_symlink(real, dir.path() / "link");
  fs::create_directory(dir.path() / "dir");
  ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "dir", "fifo"}) {
    uint64_t written = 0;
    CommandResult failure;
    ASSERT_FALSE(AppendBytesToFile(dir.path() / name, "x", written, failure)) << name;
    EXPECT_EQ(failure.error->message, "WRITE_FILE_FAILED: append target must be a regular non-reparse file") << name;
  }
  EXPECT_EQ(ReadWholeFile(real), "r");
}

TEST(AppendFileToFile, SameFileThroughAHardLinkIsRefusedBeforeAnyByteMoves) {
  quay_test::TempDir dir;
  const fs::path file = dir.WriteFile("one", "data");
  fs::create_hard_link(file, dir.path() / "two");
  uint64_t written = 0;
  CommandResult failure;
  ASSERT_FALSE(AppendFileToFile(dir.path() / "two", file, written, failure));
  EXPECT_EQ(failure.error->message, "WRITE_FILE_FAILED: local_path and append target must be different files");
  EXPECT_EQ(ReadWholeFile(file), "data");

  const fs::path other = dir.WriteFile("other", "+more");
  ASSERT_TRUE(AppendFileToFile(other, file, written, failure));
  EXPECT_EQ(written, 5u);
  EXPECT_EQ(ReadWholeFile(file), "data+more");
}

}  // namespace
