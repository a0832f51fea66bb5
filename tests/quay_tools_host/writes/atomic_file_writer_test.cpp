// The atomic writer on real files: names, permissions, ACLs, refusals, leftovers.
#include "quay_tools_host/writes/atomic_file_writer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;
using brimo_stack::CommandResult;
using quay_test::ReadWholeFile;
using quay_test::TempSiblingsIn;

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0);
  return info.st_mode & 07777;
}

// TempSiblingsIn looks for this marker: a temporary of another form would hide a leftover.
TEST(MakeTempSiblingPath, AppendsMarkerRandomAndClockToTheFullName) {
  const std::string temp = MakeTempSiblingPath("/w/a.txt").string();
  EXPECT_TRUE(std::regex_match(temp, std::regex(R"(/w/a\.txt\.brimo_stack_tmp_[0-9]+_[0-9]+)"))) << temp;
  EXPECT_NE(MakeUniqueToken(), MakeUniqueToken());
}

class AtomicWriter : public ::testing::Test {
 protected:
  quay_test::TempDir dir_;
  uint64_t written_ = 0;
};

// The failure's message, or "ok".
std::string Outcome(const CommandResult& result) { return result.ok ? "ok" : result.error->message; }

TEST_F(AtomicWriter, CreatesParentsAndAnEmptyFileWithTheUsualMode) {
  const fs::path target = dir_.path() / "x/y/new.txt";
  ASSERT_EQ(Outcome(WriteFileAtomically(target, "")), "ok");
  EXPECT_EQ(ReadWholeFile(target), "");
  const mode_t mask = ::umask(022);
  ::umask(mask);
  EXPECT_EQ(ModeOf(target), 0666 & ~mask);
  EXPECT_TRUE(TempSiblingsIn(target.parent_path()).empty());
}

TEST_F(AtomicWriter, ReplacementKeepsModeAndAccessAcl) {
  const fs::path target = dir_.WriteFile("keep.txt", "old");
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
  ASSERT_EQ(Outcome(WriteFileAtomically(target, "new")), "ok");
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(ModeOf(target), mode_with_acl);
  std::vector<unsigned char> copied(128);
  const ssize_t size = ::getxattr(target.c_str(), "system.posix_acl_access", copied.data(), copied.size());
  ASSERT_EQ(size, static_cast<ssize_t>(sizeof(acl)));
  EXPECT_EQ(std::memcmp(copied.data(), acl, sizeof(acl)), 0);
}

// A read-only target is refused end to end (e2e/file_write_test EveryRefusalHasItsMessage).
TEST_F(AtomicWriter, DirectoryTargetIsRefusedAndLeavesNothingBehind) {
  fs::create_directory(dir_.path() / "d");
  EXPECT_EQ(Outcome(WriteFileAtomically(dir_.path() / "d", "x")),
            "WRITE_FILE_FAILED: atomically replace file failed: Is a directory");
  EXPECT_TRUE(fs::is_directory(dir_.path() / "d"));
  EXPECT_TRUE(TempSiblingsIn(dir_.path()).empty());
}

// A FIFO, a socket and a device node are refused as they stand, never replaced by a file.
TEST_F(AtomicWriter, SpecialFileTargetIsRefusedAndStays) {
  const fs::path fifo = dir_.path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  const fs::path socket_path = dir_.path() / "socket";
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket_path.c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(::bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  std::vector<fs::path> targets{fifo, socket_path};
  // Device nodes need the right to make them; without it the other two still run.
  if (::mknod((dir_.path() / "null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) targets.push_back(dir_.path() / "null");
  for (const fs::path& target : targets) {
    const fs::file_type before = fs::symlink_status(target).type();
    const CommandResult result = WriteFileAtomically(target, "content");
    ASSERT_FALSE(result.ok) << target;
    EXPECT_EQ(result.error->category, 7);
    EXPECT_EQ(result.error->code, 1);
    EXPECT_EQ(result.error->message, "INVALID_FILE_PATH: path is not a regular file: " + target.string());
    EXPECT_EQ(fs::symlink_status(target).type(), before) << target;
  }
  ::close(sock);
  EXPECT_TRUE(TempSiblingsIn(dir_.path()).empty());
}

// Set-id bits stay only while the replaced file keeps its owner and group.
TEST_F(AtomicWriter, SetIdBitsGoWhenTheOwnerChanges) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving a file to another owner needs root";
  const struct {
    uid_t owner;
    gid_t group;
    mode_t expected;
  } cases[] = {{0, 0, 06755}, {12345, 0, 0755}, {0, 12345, 0755}};
  for (const auto& c : cases) {
    const fs::path target = dir_.WriteFile("setid", "old");
    ASSERT_EQ(::chown(target.c_str(), c.owner, c.group), 0);
    ASSERT_EQ(::chmod(target.c_str(), 06755), 0);
    ASSERT_EQ(Outcome(WriteFileAtomically(target, "agent's bytes")), "ok");
    EXPECT_EQ(ModeOf(target), c.expected) << c.owner << ":" << c.group;
  }
}

TEST_F(AtomicWriter, LinkAtTheTargetOrOnTheWayIsRefused) {
  const fs::path outside = dir_.WriteFile("outside/secret", "s");
  fs::create_symlink(outside, dir_.path() / "to_file");
  fs::create_directory_symlink(outside.parent_path(), dir_.path() / "to_dir");
  for (const fs::path& target : {dir_.path() / "to_file", dir_.path() / "to_dir/secret"}) {
    EXPECT_TRUE(Outcome(WriteFileAtomically(target, "pwned"))
                    .starts_with("INVALID_FILE_PATH: write path contains a reparse point: "))
        << target;
  }
  EXPECT_EQ(ReadWholeFile(outside), "s");
}

TEST_F(AtomicWriter, ExistingTemporaryNameIsNeverOverwritten) {
  const fs::path squatter = dir_.WriteFile("t.txt.brimo_stack_tmp_1_1", "mine");
  EXPECT_EQ(Outcome(WriteTempAndReplace(squatter, dir_.path() / "t.txt", "x")),
            "WRITE_FILE_FAILED: create temporary file failed: File exists");
  EXPECT_EQ(ReadWholeFile(squatter), "mine");
  EXPECT_FALSE(fs::exists(dir_.path() / "t.txt"));
}

TEST_F(AtomicWriter, MoveInCreateModeRefusesAnExistingTarget) {
  const fs::path temp = dir_.WriteFile("a", "new");
  const fs::path target = dir_.WriteFile("b", "old");
  const CommandResult refused = MoveFileWithRetry(temp, target, MoveFileMode::kCreate, FileErrorKind::kWriteFileFailed);
  EXPECT_EQ(Outcome(refused), "WRITE_FILE_FAILED: atomically create file failed: File exists");
  EXPECT_EQ(refused.error->code, EEXIST);
  EXPECT_EQ(Outcome(MoveFileWithRetry(temp, target, MoveFileMode::kReplace, FileErrorKind::kWriteFileFailed)), "ok");
  EXPECT_EQ(ReadWholeFile(target), "new");
}

// A copy onto itself is file_write's with local_path (e2e/file_write_test).
TEST_F(AtomicWriter, CopySourceThatIsALinkOrADirectoryIsRefused) {
  const fs::path real = dir_.WriteFile("real", "r");
  fs::create_symlink(real, dir_.path() / "link");
  fs::create_directory(dir_.path() / "dir");
  for (const fs::path& source : {dir_.path() / "link", dir_.path() / "dir"}) {
    EXPECT_EQ(Outcome(CopyFileAtomically(source, dir_.path() / "out", FileErrorKind::kExportFileFailed, written_)),
              "EXPORT_FILE_FAILED: local_path must be a regular non-reparse file");
  }
  EXPECT_FALSE(fs::exists(dir_.path() / "out"));
  EXPECT_TRUE(TempSiblingsIn(dir_.path()).empty());
}

}  // namespace
