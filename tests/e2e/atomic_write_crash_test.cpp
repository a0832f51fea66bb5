// The host killed with SIGKILL at random moments while it replaces a file: the target is always
// the old content or the new one, whole.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "support/host_process.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::HostProcess;
using quay_test::ReadWholeFile;

constexpr int kRuns = 100;
constexpr size_t kContentBytes = 1 << 20;

// Each generation has its own header and fill, so that a torn file matches neither neighbour.
std::string Generation(int number) {
  std::string content = "generation " + std::to_string(number) + "\n";
  content.resize(kContentBytes, static_cast<char>('a' + number % 26));
  return content;
}

std::string WriteLine(const fs::path& target, int number) {
  return json{{"method", "file_write"}, {"params", {{"path", target.string()}, {"content", Generation(number)}}}}.dump() +
         "\n";
}

TEST(AtomicWriteCrash, TargetIsAlwaysOldOrNewWhole) {
  quay_test::TempDir dir;
  const fs::path target = fs::canonical(dir.path()) / "big.txt";
  dir.WriteFile("big.txt", Generation(0));

  // One undisturbed write tells how long the window is on this machine.
  const auto start = std::chrono::steady_clock::now();
  {
    HostProcess host = HostProcess::WithConfig();
    const json answer =
        host.Call({{"method", "file_write"}, {"params", {{"path", target.string()}, {"content", Generation(1)}}}});
    ASSERT_TRUE(answer.value("ok", false)) << answer.dump();
  }
  const auto window = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  std::string current = Generation(1);

  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int64_t> delay(0, std::max<int64_t>(window.count(), 1000));
  int replaced = 0;
  for (int run = 2; run < kRuns + 2; ++run) {
    HostProcess host = HostProcess::WithConfig();
    const std::string line = WriteLine(target, run);
    ASSERT_TRUE(host.Write(line));
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(host.pid(), SIGKILL);
    host.Wait();
    const std::string now = ReadWholeFile(target);
    if (now == Generation(run)) {
      current = now;
      ++replaced;
    } else {
      ASSERT_EQ(now.size(), current.size()) << "run " << run;
      ASSERT_TRUE(now == current) << "run " << run << ": torn file, header " << now.substr(0, now.find('\n'));
    }
  }
  // Both outcomes must have happened, or the delays missed the window.
  EXPECT_GT(replaced, 0);
  EXPECT_LT(replaced, kRuns);
}

}  // namespace
