// The host killed with SIGKILL at random moments while it replaces a file: the target is always
// the old content or the new one, whole.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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

  // A fresh host's time from request to answer is the window a kill can land in.
  std::chrono::microseconds window{0};
  for (int sample = 0; sample < 3; ++sample) {
    HostProcess host = HostProcess::WithConfig();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(host.Write(WriteLine(target, 1)));
    const auto answer = host.ReadLine();
    ASSERT_TRUE(answer.has_value() && json::parse(*answer).value("ok", false));
    window = std::max(window, std::chrono::duration_cast<std::chrono::microseconds>(
                                  std::chrono::steady_clock::now() - start));
  }
  std::string current = Generation(1);

  // The upper bound of the delay walks towards the edge of the window: shorter after a
  // replacement, longer after a kill that came first, so that a loaded machine still sees both.
  std::mt19937 random(std::random_device{}());
  double upper = std::max<double>(static_cast<double>(window.count()), 1000.0);
  int replaced = 0;
  for (int run = 2; run < kRuns + 2; ++run) {
    HostProcess host = HostProcess::WithConfig();
    const std::string line = WriteLine(target, run);
    ASSERT_TRUE(host.Write(line));
    std::uniform_real_distribution<double> delay(0.0, upper);
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<int64_t>(delay(random))));
    ::kill(host.pid(), SIGKILL);
    host.Wait();
    const std::string now = ReadWholeFile(target);
    if (now == Generation(run)) {
      current = now;
      ++replaced;
      upper *= 0.8;
    } else {
      ASSERT_EQ(now.size(), current.size()) << "run " << run;
      ASSERT_TRUE(now == current) << "run " << run << ": torn file, header " << now.substr(0, now.find('\n'));
      upper *= 1.25;
    }
  }
  // Both outcomes must have happened, or the delays missed the window.
  EXPECT_GT(replaced, 0);
  EXPECT_LT(replaced, kRuns);
}

}  // namespace
