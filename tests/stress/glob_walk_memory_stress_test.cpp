// A walk over a million entries holds one listing per level of the tree, with a fixed buffer:
// its peak memory grows neither with the entries it passes nor with the size of one directory.
// Prints the figures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

#include "brimo_stack_common/posix/scoped_fd.h"
#include "quay_tools_host/search/glob_walk.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr int kDirectories = 10;
constexpr int kFilesPerDirectory = 100'000;
constexpr uint64_t kEntries = kDirectories + uint64_t{kDirectories} * kFilesPerDirectory;

// A "kB" line of /proc/self/status, such as VmRSS or VmHWM (the peak of VmRSS).
uint64_t StatusKiB(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key + ":")) return std::stoull(line.substr(key.size() + 1));
  }
  ADD_FAILURE() << key << " missing";
  return 0;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// d0..d9, each with x00000 and f00001..f99999: empty files made by one mknodat each.
void MakeTree(const std::filesystem::path& root) {
  ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
  const ScopedFd top(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(top.valid());
  char name[16];
  for (int d = 0; d < kDirectories; ++d) {
    std::snprintf(name, sizeof(name), "d%d", d);
    ASSERT_EQ(::mkdirat(top.get(), name, 0755), 0);
    const ScopedFd dir(::openat(top.get(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(dir.valid());
    for (int f = 0; f < kFilesPerDirectory; ++f) {
      std::snprintf(name, sizeof(name), "%c%05d", f == 0 ? 'x' : 'f', f);
      ASSERT_EQ(::mknodat(dir.get(), name, S_IFREG | 0644, 0), 0) << name;
    }
  }
}

TEST(GlobWalkMemoryStress, MillionEntriesInBoundedMemory) {
  // A million creations take minutes on some disks and seconds in memory.
  struct statfs shm {};
  const bool shm_is_tmpfs = ::statfs("/dev/shm", &shm) == 0 && shm.f_type == TMPFS_MAGIC;
  const quay_test::TempDir temp(shm_is_tmpfs ? std::filesystem::path("/dev/shm") : std::filesystem::path());
  const std::filesystem::path root = std::filesystem::canonical(temp.path()) / "tree";
  auto started = std::chrono::steady_clock::now();
  MakeTree(root);
  const double made = SecondsSince(started);
  const FileAccessPolicy policy = CompileFileAccessPolicy({}, /*for_write=*/false);

  // Every directory is opened and every name looked at, but only one name per directory is kept.
  // Writing 5 to clear_refs sets the peak back to the present size, so VmHWM is this walk's.
  std::ofstream("/proc/self/clear_refs") << "5";
  const uint64_t rss_before = StatusKiB("VmRSS");
  GlobResultBuilder few(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/false);
  started = std::chrono::steady_clock::now();
  const CommandResult sparse =
      WalkGlob(root, GlobPattern("**/x*"), policy, GlobDeadline::max(), kGlobUnlimitedDepth, few);
  const double sparse_seconds = SecondsSince(started);
  const uint64_t peak_growth = StatusKiB("VmHWM") - rss_before;

  GlobResultBuilder all(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/true);
  started = std::chrono::steady_clock::now();
  const CommandResult full = WalkGlob(root, GlobPattern("**/*"), policy, GlobDeadline::max(), kGlobUnlimitedDepth, all);
  const double full_seconds = SecondsSince(started);

  // Names alone, without any list around them, take at least 32 bytes each as strings: those of
  // the whole tree, or those of one directory that a listing read in full.
  const uint64_t names_kib = kEntries * sizeof(std::string) / 1024;
  const uint64_t directory_names_kib = kFilesPerDirectory * sizeof(std::string) / 1024;
  std::printf("\nglob walk memory stress: %lu entries made in %s in %.1f s\n"
              "**/x*: %lu kept in %.2f s, peak RSS %lu KiB above the start (as strings, the names take > %lu KiB, "
              "those of one directory > %lu KiB)\n"
              "**/*:  %lu kept in %.2f s\n",
              static_cast<unsigned long>(kEntries), temp.path().c_str(), made, static_cast<unsigned long>(few.count()), sparse_seconds,
              static_cast<unsigned long>(peak_growth), static_cast<unsigned long>(names_kib),
              static_cast<unsigned long>(directory_names_kib),
              static_cast<unsigned long>(all.count()), full_seconds);
  ASSERT_TRUE(sparse.ok) << sparse.error->message;
  ASSERT_TRUE(full.ok) << full.error->message;
  EXPECT_EQ(few.count(), static_cast<uint64_t>(kDirectories));
  EXPECT_EQ(all.count(), kEntries);
  EXPECT_LT(peak_growth, directory_names_kib / 3);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
