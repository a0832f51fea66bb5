// The line filter over rg output on a real tree: a full 4 MiB output of many lines per file, one
// line per file (a resolution and two decisions each), and a hostile single-file output.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "quay_tools_host/search/grep_output_filter.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;
using brimo_stack::quay_tools_host::FileAccessPolicyConfig;

constexpr int kDirectories = 25;
constexpr int kFilesPerDirectory = 20;
constexpr size_t kLineBytes = 105;  // 40,000 lines of this make 4 MiB

// 500 empty files in 25 directories below a fresh root, removed at exit.
class Tree {
 public:
  Tree() {
    const char* configured = std::getenv("QUAY_BENCH_DIR");
    root_ = fs::canonical(configured != nullptr ? configured : "/tmp") /
            ("quay_grep_filter_bench_" + std::to_string(::getpid()));
    for (int d = 0; d < kDirectories; ++d) {
      for (int f = 0; f < kFilesPerDirectory; ++f) {
        const fs::path file = root_ / ("dir_" + std::to_string(d)) / ("source_" + std::to_string(f) + ".cpp");
        fs::create_directories(file.parent_path());
        std::ofstream(file).put('x');
        files_.push_back(file.native());
      }
    }
  }
  ~Tree() { fs::remove_all(root_); }

  const fs::path& root() const { return root_; }
  const std::vector<std::string>& files() const { return files_; }

  // Whitelisted root, one refused directory and one refused file: about 5 % of lines go.
  FileAccessPolicy Policy() const {
    const std::string r = root_.native();
    const FileAccessPolicyConfig config{
        false, false, {r + "/*"}, {}, {r + "/dir_3/*", r + "/dir_7/source_1.cpp", "*.env"}};
    return CompileFileAccessPolicy(config, /*for_write=*/false);
  }

 private:
  fs::path root_;
  std::vector<std::string> files_;
};

const Tree& SharedTree() {
  static const Tree tree;
  return tree;
}

// rg-style match and context lines, `lines_per_file` for each file, each line kLineBytes long.
std::string GrepOutput(const std::vector<std::string>& files, int lines_per_file) {
  std::string text;
  for (const std::string& file : files) {
    for (int n = 1; n <= lines_per_file; ++n) {
      std::string line = file + (n % 4 == 0 ? "-" : ":") + std::to_string(n) + (n % 4 == 0 ? "-" : ":");
      line += "    value = compute(alpha, beta);  // a line of ordinary source text";
      line.resize(kLineBytes - 1, ' ');
      text += line + '\n';
    }
  }
  return text;
}

void RunFilter(benchmark::State& state, const fs::path& base, const FileAccessPolicy& policy,
               const std::string& input) {
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string text = input;
    state.ResumeTiming();
    FilterGrepOutput(base, base, policy, text);
    kept = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
  state.counters["input_bytes"] = static_cast<double>(input.size());
  state.counters["kept_bytes"] = static_cast<double>(kept);
}

// Arg: lines per file over the 500 files; 80 gives 40,000 lines (4 MiB), 1 gives a path
// resolution for every line.
void BM_FilterGrepOutput(benchmark::State& state) {
  const Tree& tree = SharedTree();
  RunFilter(state, tree.root(), tree.Policy(), GrepOutput(tree.files(), static_cast<int>(state.range(0))));
}
BENCHMARK(BM_FilterGrepOutput)->Arg(80)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// One file searched: rg prints no path, and a text holding ":<digits>:" makes a new candidate on
// every line that cannot resolve below the file.
void BM_FilterSingleFileShapes(benchmark::State& state) {
  const Tree& tree = SharedTree();
  std::string input;
  for (int n = 1; input.size() < (size_t{4} << 20); ++n) input += std::to_string(n) + ":a:1:b\n";
  RunFilter(state, tree.files().front(), tree.Policy(), input);
}
BENCHMARK(BM_FilterSingleFileShapes)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TrimToCompleteLines(benchmark::State& state) {
  std::string input = GrepOutput(SharedTree().files(), 80) + "\xE2\x82";
  for (auto _ : state) {
    state.PauseTiming();
    std::string text = input;
    state.ResumeTiming();
    TrimToCompleteLines(text);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_TrimToCompleteLines)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
