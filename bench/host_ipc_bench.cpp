// Frame round trips through the built host, and the pipe read strategies they depend on.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "support/host_process.h"

namespace {

constexpr size_t kLargeFrameBytes = 16777216;

// A ping request padded to exactly one full frame, line feed included.
std::string LargestPingFrame() {
  std::string frame = R"({"method":"ping","pad":")";
  frame += std::string(kLargeFrameBytes - frame.size() - 3, 'x');
  frame += "\"}\n";
  return frame;
}

void BM_PingRoundTrip(benchmark::State& state) {
  quay_test::HostProcess host = quay_test::HostProcess::WithConfig();
  const std::string request = "{\"method\":\"ping\"}\n";
  for (auto _ : state) {
    host.Write(request);
    auto line = host.ReadLine();
    if (!line || *line != R"({"ok":true})") state.SkipWithError("bad answer");
    benchmark::DoNotOptimize(line);
  }
}
BENCHMARK(BM_PingRoundTrip)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

void BM_LargestFrameRoundTrip(benchmark::State& state) {
  quay_test::HostProcess host = quay_test::HostProcess::WithConfig();
  const std::string frame = LargestPingFrame();
  for (auto _ : state) {
    host.Write(frame);
    auto line = host.ReadLine();
    if (!line || *line != R"({"ok":true})") state.SkipWithError("bad answer");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(BM_LargestFrameRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// 16 MiB through a pipe, read in pieces of `range(0)` bytes: one byte a call is what a channel
// without a read buffer pays.
void BM_PipeRead16MiB(benchmark::State& state) {
  const size_t piece = static_cast<size_t>(state.range(0));
  const std::string payload(kLargeFrameBytes, 'x');
  std::string buffer(piece, '\0');
  for (auto _ : state) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    std::thread writer([&] {
      size_t offset = 0;
      while (offset < payload.size()) {
        const ssize_t n = ::write(fds[1], payload.data() + offset, payload.size() - offset);
        if (n <= 0) break;
        offset += static_cast<size_t>(n);
      }
      ::close(fds[1]);
    });
    size_t total = 0;
    for (;;) {
      const ssize_t n = ::read(fds[0], buffer.data(), piece);
      if (n <= 0) break;
      total += static_cast<size_t>(n);
    }
    writer.join();
    ::close(fds[0]);
    benchmark::DoNotOptimize(total);
  }
}
BENCHMARK(BM_PipeRead16MiB)->Arg(1)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
