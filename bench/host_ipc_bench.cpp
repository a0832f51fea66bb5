// Frame round trips through the built host, and the pipe read strategies they depend on.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <sys/wait.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "brimo_stack/local_runtime/ipc/json_frame_parser.h"
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

// The floor of any round trip here: one byte to a child process and back, no work between.
void BM_PipePingPongFloor(benchmark::State& state) {
  int to_child[2], to_parent[2];
  if (::pipe2(to_child, O_CLOEXEC) != 0 || ::pipe2(to_parent, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  const pid_t child = ::fork();
  if (child == 0) {
    // Drop the parent's ends, or the child never sees end of input.
    ::close(to_child[1]);
    ::close(to_parent[0]);
    char byte;
    while (::read(to_child[0], &byte, 1) == 1 && ::write(to_parent[1], &byte, 1) == 1) {
    }
    ::_exit(0);
  }
  ::close(to_child[0]);
  ::close(to_parent[1]);
  char byte = 'x';
  for (auto _ : state) {
    if (::write(to_child[1], &byte, 1) != 1 || ::read(to_parent[0], &byte, 1) != 1) state.SkipWithError("pipe");
  }
  ::close(to_child[1]);
  ::close(to_parent[0]);
  ::waitpid(child, nullptr, 0);
}
BENCHMARK(BM_PipePingPongFloor)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// The parse of the largest frame alone, by the host's frame parser and by the JSON library's
// own parser, which reads a string a byte at a time.
void BM_ParseLargestFrame(benchmark::State& state) {
  std::string frame = LargestPingFrame();
  frame.pop_back();
  const bool library = state.range(0) != 0;
  for (auto _ : state) {
    nlohmann::json value;
    if (library) {
      value = nlohmann::json::parse(frame, nullptr, false, false);
    } else if (!brimo_stack::local_runtime::ipc::ParseJsonFrame(frame, value)) {
      state.SkipWithError("parse failed");
    }
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ParseLargestFrame)->ArgName("library")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
