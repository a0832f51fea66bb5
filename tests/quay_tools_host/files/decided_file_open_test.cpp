// Sources read only through a descriptor proved to be the decided file: a directory on the way
// traded for a link in a loop must never lead a reader to the file behind the link.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "quay_tools_host/files/file_read_primitives.h"
#include "quay_tools_host/files/link_free_open_posix.h"
#include "quay_tools_host/writes/atomic_file_writer.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::CommandResult;
using namespace brimo_stack::quay_tools_host::internal;

constexpr int kReads = 3000;

// Reads `source` the way one command does; the bytes it got, or the failure.
using SourceReader = std::function<CommandResult(const fs::path& source, const fs::path& scratch, std::string& got)>;

struct ReaderCase {
  const char* name;
  SourceReader read;
};

const ReaderCase kReaders[] = {
    {"edit_load", [](const fs::path& source, const fs::path&, std::string& got) {
       return ReadValidatedUtf8File(source, got, 1 << 20);
     }},
    {"read_handle", [](const fs::path& source, const fs::path&, std::string& got) {
       CachedReadFile file;
       CommandResult opened = OpenCachedReadHandle(source, file);
       if (!opened.ok) return opened;
       got.assign(64, '\0');
       uint64_t n = 0;
       CommandResult read = ReadCached(file, got.data(), got.size(), n);
       got.resize(n);
       return read;
     }},
    {"copy_source", [](const fs::path& source, const fs::path& scratch, std::string& got) {
       uint64_t written = 0;
       CommandResult copied = CopyFileAtomically(source, scratch, FileErrorKind::kExportFileFailed, written);
       if (copied.ok) got = quay_test::ReadWholeFile(scratch);
       return copied;
     }},
};

void PrintTo(const ReaderCase& reader, std::ostream* out) { *out << reader.name; }

class DecidedFileOpen : public ::testing::TestWithParam<ReaderCase> {};

TEST_P(DecidedFileOpen, NeverReadsThroughASwappedLink) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  dir.WriteFile("work/secret.txt", "inside");
  dir.WriteFile("outside/secret.txt", "OUTSIDE");
  fs::create_directory(root / "scratch");
  fs::create_directory_symlink(root / "outside", root / "swap");

  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    while (!stop.load()) {
      ::renameat2(AT_FDCWD, (root / "work").c_str(), AT_FDCWD, (root / "swap").c_str(), RENAME_EXCHANGE);
    }
  });
  int inside = 0;
  int escaped = 0;
  int refused = 0;
  // On a busy machine the swapper may sleep through a whole run of reads, so the run goes on
  // (for a bounded time) until both sides of the race were seen.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (int read = 0; read < kReads || ((inside == 0 || refused == 0) && std::chrono::steady_clock::now() < deadline);
       ++read) {
    std::string got;
    const CommandResult result = GetParam().read(root / "work/secret.txt", root / "scratch/copy.txt", got);
    if (!result.ok) {
      ++refused;
    } else if (got == "inside") {
      ++inside;
    } else {
      ++escaped;
    }
  }
  stop.store(true);
  swapper.join();
  EXPECT_EQ(escaped, 0);
  EXPECT_GT(inside, 0);
  EXPECT_GT(refused, 0);
}

INSTANTIATE_TEST_SUITE_P(Readers, DecidedFileOpen, ::testing::ValuesIn(kReaders),
                         [](const auto& info) { return std::string(info.param.name); });

// A /proc file reports a size of 0 yet has content: a copy takes what the size promised, as a
// read does, so no more is read than the open file's size.
TEST(DecidedFileOpen, CopyTakesNoMoreThanTheReportedSize) {
  quay_test::TempDir dir;
  const fs::path status = fs::path("/proc") / std::to_string(::getpid()) / "status";
  uint64_t written = 1;
  ASSERT_TRUE(CopyFileAtomically(status, dir.path() / "copy", FileErrorKind::kExportFileFailed, written).ok);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(quay_test::ReadWholeFile(dir.path() / "copy"), "");
}

// Kernels without openat2 take the walk by hand: it must answer as openat2 does, on every
// kind of path, and refuse a step up that openat2 would only refuse beneath an anchor.
TEST(OpenWithoutLinks, WalkByHandAnswersAsOpenat2) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  dir.WriteFile("real/file", "x");
  fs::create_directory_symlink(root / "real", root / "dirlink");
  fs::create_symlink(root / "real/file", root / "real/filelink");
  const struct {
    fs::path path;
    int flags;
    int error;  // 0: opens
  } cases[] = {
      {root / "real/file", O_RDONLY, 0},
      {root / "real", O_RDONLY | O_DIRECTORY, 0},
      {root / "dirlink/file", O_RDONLY, ELOOP},
      {root / "real/filelink", O_RDONLY, ELOOP},
      {root / "dirlink", O_RDONLY | O_DIRECTORY, ELOOP},
      {root / "real/missing", O_RDONLY, ENOENT},
      {root / "real/file/below", O_RDONLY, ENOTDIR},
  };
  for (const auto& c : cases) {
    for (const bool by_hand : {false, true}) {
      errno = 0;
      const int fd = by_hand ? OpenWithoutLinksByComponents(AT_FDCWD, c.path, c.flags | O_CLOEXEC)
                             : OpenWithoutLinks(AT_FDCWD, c.path, c.flags | O_CLOEXEC);
      EXPECT_EQ(fd >= 0 ? 0 : errno, c.error) << c.path << (by_hand ? " by hand" : " openat2");
      if (fd >= 0) ::close(fd);
    }
  }
  errno = 0;
  EXPECT_EQ(OpenWithoutLinksByComponents(AT_FDCWD, root / "real/../real/file", O_RDONLY), -1);
  EXPECT_EQ(errno, EXDEV);
}

}  // namespace
