// The write commands in process, without the frame around them, next to one write and one
// fsync of the same bytes; and the frame parse that carries a content to them.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "brimo_stack/local_runtime/ipc/json_frame_parser.h"
#include "quay_tools_host/file_command_service.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::quay_tools_host::FileCommandService;

constexpr size_t kEditBytes = size_t{64} << 20;
constexpr size_t kWriteBytes = (size_t{16} << 20) - 4096;

fs::path ScratchDirectory() {
  const char* configured = std::getenv("QUAY_BENCH_DIR");
  fs::path dir = fs::path(configured != nullptr ? configured : "/tmp") / ("quay_command_bench_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  return dir;
}

std::string SourceText(size_t size) {
  const std::string line = "value = compute(alpha, beta)  # a line of ordinary source text\n";
  std::string text;
  text.reserve(size + line.size());
  while (text.size() < size) text += line;
  text.resize(size);
  return text;
}

void WriteAndSync(const fs::path& path, const std::string& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) || ::fsync(fd) != 0) {
    throw std::runtime_error("baseline write failed");
  }
  ::close(fd);
}

// The same bytes with one write and one fsync, each run over the previous file as the
// commands replace theirs.
void BM_WriteAndFsync(benchmark::State& state) {
  const fs::path dir = ScratchDirectory();
  const std::string bytes(static_cast<size_t>(state.range(0)), 'x');
  WriteAndSync(dir / "baseline.bin", bytes);
  for (auto _ : state) WriteAndSync(dir / "baseline.bin", bytes);
  fs::remove_all(dir);
}
BENCHMARK(BM_WriteAndFsync)->Arg(kWriteBytes)->Arg(kEditBytes)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);

void BM_FileWriteContent(benchmark::State& state) {
  const fs::path dir = ScratchDirectory();
  FileCommandService service;
  brimo_stack::quay_tools_host::FileWriteRequest request;
  request.path = (dir / "written.bin").string();
  request.content = std::string(kWriteBytes, 'x');
  for (auto _ : state) {
    if (!service.Write(request).ok) state.SkipWithError("file_write failed");
  }
  fs::remove_all(dir);
}
BENCHMARK(BM_FileWriteContent)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);

// Every run edits a fresh copy that is already on disk, so no run pays for the last one's file.
void BM_FileEditReplaceAll(benchmark::State& state) {
  const fs::path dir = ScratchDirectory();
  const std::string source = SourceText(kEditBytes);
  FileCommandService service;
  brimo_stack::quay_tools_host::FileEditRequest request;
  request.path = (dir / "edited.txt").string();
  request.old_content = "value";
  request.new_content = "VALUE";
  request.replace_all = true;
  for (auto _ : state) {
    state.PauseTiming();
    WriteAndSync(request.path, source);
    ::sync();
    state.ResumeTiming();
    if (!service.Edit(request).ok) state.SkipWithError("file_edit failed");
  }
  fs::remove_all(dir);
}
BENCHMARK(BM_FileEditReplaceAll)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);

// The frame of a 16 MiB content with a line feed every 64 bytes, as a parent would send it.
void BM_ParseContentFrame(benchmark::State& state) {
  const nlohmann::json request = {{"method", "file_write"},
                                  {"params", {{"path", "/tmp/x"}, {"content", SourceText(kWriteBytes - (kWriteBytes >> 6))}}}};
  const std::string frame = request.dump();
  for (auto _ : state) {
    nlohmann::json value;
    if (!brimo_stack::local_runtime::ipc::ParseJsonFrame(frame, value)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(BM_ParseContentFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

}  // namespace

BENCHMARK_MAIN();
