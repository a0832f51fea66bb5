// A parent directory swapped with a symbolic link in a loop while writes run: nothing may land
// behind the link, no directory may be made there, and every failure names the link or the
// file in the way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "quay_tools_host/writes/atomic_file_writer.h"
#include "quay_tools_host/writes/file_append.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::CommandResult;
using namespace brimo_stack::quay_tools_host::internal;

constexpr int kMaxSwaps = 40000;
constexpr auto kMaxDuration = std::chrono::seconds(3);

bool IsAllowedFailure(const std::string& message) {
  return message.starts_with("INVALID_FILE_PATH: write path contains a reparse point: ") ||
         message.starts_with("INVALID_FILE_PATH: write path parent is not a directory: ");
}

TEST(WriteLinkSwap, NoWriteLandsBehindTheLink) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  fs::create_directories(root / "work/sub");
  fs::create_directories(root / "outside/sub");
  fs::create_directory_symlink(root / "outside", root / "swap");

  std::atomic<bool> stop{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    const auto deadline = std::chrono::steady_clock::now() + kMaxDuration;
    while (!stop.load() && swaps.load() < kMaxSwaps && std::chrono::steady_clock::now() < deadline) {
      ASSERT_EQ(::renameat2(AT_FDCWD, (root / "work").c_str(), AT_FDCWD, (root / "swap").c_str(), RENAME_EXCHANGE), 0);
      swaps.fetch_add(1);
    }
    stop.store(true);
  });

  int succeeded = 0;
  int refused = 0;
  for (int write = 0; !stop.load(); ++write) {
    // Whole writes go to directories that don't exist yet, so their parents are made mid-race.
    const fs::path target = write % 2 == 0 ? root / "work/sub" / std::to_string(write) / "new/file.txt"
                                           : root / "work/sub" / (std::to_string(write) + ".txt");
    uint64_t appended = 0;
    const CommandResult written =
        write % 2 == 0 ? WriteFileAtomically(target, "whole") : AppendBytesToFile(target, "tail", appended);
    // Parents made through the link would show up outside even when the write itself fails.
    if (written.ok) {
      ++succeeded;
    } else {
      ++refused;
      EXPECT_TRUE(IsAllowedFailure(written.error->message)) << written.error->message;
    }
  }
  swapper.join();
  EXPECT_GE(swaps.load(), 1000);
  EXPECT_GT(succeeded, 0);
  EXPECT_GT(refused, 0);
  // The real directory is whichever name is not the link now; the other side must be empty.
  const fs::path real = fs::is_symlink(root / "work") ? root / "swap" : root / "work";
  EXPECT_TRUE(fs::is_empty(root / "outside/sub")) << fs::directory_iterator(root / "outside/sub")->path();
  EXPECT_TRUE(quay_test::TempSiblingsIn(real / "sub").empty());
  const auto landed = std::distance(fs::directory_iterator(real / "sub"), fs::directory_iterator());
  EXPECT_GE(landed, succeeded);
}

}  // namespace
