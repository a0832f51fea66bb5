// The glob matcher over the paths of a real tree (/usr, or $QUAY_BENCH_DIR): one whole path
// at a time, and one name at a time as a walk does it, pruning the directories no pattern enters.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "quay_tools_host/search/glob_pattern.h"

namespace {

namespace fs = std::filesystem;
using namespace brimo_stack::quay_tools_host::internal;

struct Entry {
  uint32_t depth = 0;
  bool directory = false;
  size_t subtree_end = 0;  // the index behind the entry's last descendant
  std::string_view name;
  std::string_view relative_path;
};

// Every entry below the root in walk order, links not followed, unreadable directories
// skipped. The texts lie back to back, as a walk's names come from one buffer, so that the
// figures are the matcher's and not cache misses on scattered strings.
class Tree {
 public:
  Tree() {
    const char* configured = std::getenv("QUAY_BENCH_DIR");
    const fs::path root = configured != nullptr ? configured : "/usr";
    struct Listed {
      uint32_t depth;
      bool directory;
      size_t path_offset, name_offset;
    };
    std::vector<Listed> listed;
    std::error_code error;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, error);
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
      std::error_code status_error;
      const std::string relative = it->path().lexically_relative(root).native();
      const size_t slash = relative.rfind('/');
      const bool directory = it->symlink_status(status_error).type() == fs::file_type::directory;
      listed.push_back({static_cast<uint32_t>(it.depth()), directory, text_.size(),
                        text_.size() + (slash == std::string::npos ? 0 : slash + 1)});
      text_ += relative;
    }
    entries_.resize(listed.size());
    for (size_t i = 0; i < listed.size(); ++i) {
      const size_t end = i + 1 < listed.size() ? listed[i + 1].path_offset : text_.size();
      entries_[i].depth = listed[i].depth;
      entries_[i].directory = listed[i].directory;
      entries_[i].relative_path = std::string_view(text_).substr(listed[i].path_offset, end - listed[i].path_offset);
      entries_[i].name = std::string_view(text_).substr(listed[i].name_offset, end - listed[i].name_offset);
    }
    std::vector<size_t> open;  // entries whose subtree is still being listed
    for (size_t i = 0; i < entries_.size(); ++i) {
      while (!open.empty() && entries_[open.back()].depth >= entries_[i].depth) {
        entries_[open.back()].subtree_end = i;
        open.pop_back();
      }
      open.push_back(i);
    }
    for (const size_t i : open) entries_[i].subtree_end = entries_.size();
  }
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::string text_;
  std::vector<Entry> entries_;
};

const Tree& SharedTree() {
  static const Tree tree;
  return tree;
}

std::string LongForm(const std::string& pattern) {
  std::string text;
  for (int i = 0; i < 64; ++i) text += "**/";
  return text + pattern;
}

// Whole relative paths: one iteration matches one path.
void BM_MatchesPath(benchmark::State& state, const std::string& pattern_text) {
  const std::vector<Entry>& entries = SharedTree().entries();
  const GlobPattern pattern(pattern_text);
  size_t next = 0;
  uint64_t matched = 0;
  for (auto _ : state) {
    matched += MatchesPath(pattern, entries[next].relative_path) ? 1 : 0;
    next = next + 1 == entries.size() ? 0 : next + 1;
  }
  benchmark::DoNotOptimize(matched);
  matched = 0;
  for (const Entry& entry : entries) matched += MatchesPath(pattern, entry.relative_path) ? 1 : 0;
  state.counters["paths"] = static_cast<double>(entries.size());
  state.counters["matches"] = static_cast<double>(matched);
}

// A walk's use: one step per visited name from its parent's state; a directory whose step
// cannot continue is not entered. One iteration is one walk of the whole tree.
void BM_WalkAdvance(benchmark::State& state, const std::string& pattern_text) {
  const std::vector<Entry>& entries = SharedTree().entries();
  const GlobPattern pattern(pattern_text);
  std::vector<GlobState> states(1, pattern.InitialState());
  uint64_t visited = 0;
  uint64_t matched = 0;
  for (auto _ : state) {
    visited = 0;
    for (size_t i = 0; i < entries.size();) {
      const Entry& entry = entries[i];
      ++visited;
      GlobStep step = pattern.Advance(states[entry.depth], entry.name);
      matched += step.matched ? 1 : 0;
      if (!entry.directory || !step.can_continue) {
        i = entry.subtree_end;
        continue;
      }
      if (states.size() <= entry.depth + 1) states.resize(entry.depth + 2);
      states[entry.depth + 1] = std::move(step.state);
      ++i;
    }
  }
  benchmark::DoNotOptimize(matched);
  state.counters["entries"] = static_cast<double>(entries.size());
  state.counters["visited"] = static_cast<double>(visited);
  state.counters["matches"] = static_cast<double>(matched) / static_cast<double>(state.iterations());
  // Seconds per visited entry, printed with its SI prefix ("45n" is 45 ns).
  state.counters["per_visit"] = benchmark::Counter(
      static_cast<double>(visited), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

const std::string kPatterns[] = {"**/*.h", "src/**/test_*.cpp", "*.txt", "include/**/*.h", "lib/**/lib*.so*"};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  for (const std::string& pattern : kPatterns) {
    benchmark::RegisterBenchmark(("BM_MatchesPath/" + pattern).c_str(), BM_MatchesPath, pattern);
    benchmark::RegisterBenchmark(("BM_WalkAdvance/" + pattern).c_str(), BM_WalkAdvance, pattern)
        ->Unit(benchmark::kMillisecond);
  }
  // Past 63 segments the positions live in a list: the same answers, at the price of allocation.
  const std::string long_form = LongForm("*.h");
  benchmark::RegisterBenchmark("BM_MatchesPath/64x**+*.h", BM_MatchesPath, long_form);
  benchmark::RegisterBenchmark("BM_WalkAdvance/64x**+*.h", BM_WalkAdvance, long_form)->Unit(benchmark::kMillisecond);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
