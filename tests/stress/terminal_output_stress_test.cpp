// A child on a pseudo-terminal that writes and exits at once: its last bytes are still in the
// terminal when the host sees the end, and must all arrive, every time.
#include <gtest/gtest.h>

#include <iostream>
#include <string>

#include "process_runtime/native_process.h"
#include "support/temp_dir.h"

namespace {

using namespace brimo_stack::process_runtime;

constexpr int kRuns = QUAY_SANITIZER_BUILD ? 500 : 1000;

// Lines of varying length, so that a loss anywhere shows as a wrong total.
std::string Payload() {
  std::string text;
  for (int line = 0; text.size() < 20000; ++line) text += std::string(static_cast<size_t>(line % 97), 'x') + "\n";
  return text;
}

TEST(TerminalOutputStress, NoByteLostWhenTheChildExitsAtOnce) {
  quay_test::TempDir dir;
  const std::string payload = Payload();
  dir.WriteFile("payload.txt", payload);
  std::string expected;
  for (char c : payload) expected += c == '\n' ? std::string("\r\n") : std::string(1, c);

  int short_runs = 0;
  uint64_t lost = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::unique_ptr<INativeProcess> child = CreateNativeProcess();
    ProcessLaunchOptions options;
    options.executable = "/bin/cat";
    options.arguments = {(dir.path() / "payload.txt").string()};
    const auto started = child->Start(options);
    ASSERT_TRUE(started.ok) << started.error->message;
    ASSERT_TRUE(child->UsesConpty());
    std::string got;
    char buffer[4096];
    for (;;) {
      OutputRead read;
      ASSERT_TRUE(child->ReadStdout(buffer, sizeof(buffer), read).ok);
      if (read.eof) break;
      got.append(buffer, read.bytes_read);
    }
    uint32_t code = 1;
    ASSERT_TRUE(child->Wait(10000, code).ok);
    ASSERT_EQ(code, 0u);
    if (got != expected) {
      ++short_runs;
      lost += expected.size() > got.size() ? expected.size() - got.size() : 0;
    }
  }
  std::cout << "terminal runs: " << kRuns << ", runs with a difference: " << short_runs << ", bytes lost: " << lost
            << "\n";
  EXPECT_EQ(short_runs, 0);
}

}  // namespace
