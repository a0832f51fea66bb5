// The line filter over rg output on real trees with real links, and the cut of a truncated output.
#include "quay_tools_host/search/grep_output_filter.h"

#include <gtest/gtest.h>

#include <random>

#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;

TEST(TrimToCompleteLinesTest, Cuts) {
  // A partial last line, a cut character (also before a feed) and a bad byte all end the text.
  const std::pair<std::string, std::string> cases[] = {
      {"abc", ""}, {"", ""}, {"a\nb\n", "a\nb\n"}, {"a\nb", "a\n"}, {"a\n\xC3\xA9\n\xE2\x82", "a\n\xC3\xA9\n"},
      {"a\nb\xE2\x82\n", "a\n"}, {"a\n\xFF\nc\nd\n", "a\n"}, {"\xC3\nb\n", ""}};
  for (const auto& [input, expected] : cases) {
    std::string text = input;
    TrimToCompleteLines(text);
    EXPECT_EQ(text, expected) << testing::PrintToString(input);
  }
}

// A tree under a whitelisted root: a refused directory, links into it, a name holding "-3-".
class FilterGrepOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {"a.txt", "secret/s.txt", "n", "n-3-x/f.txt", "dir-3-x/f.txt", "\xFF.txt"}) {
      (void)temp_.WriteFile(std::string("root/") + file, "x\n");
    }
    fs::create_directory_symlink(root_ / "secret", root_ / "to_secret");
    fs::create_symlink(root_ / "secret/s.txt", root_ / "file_link");
    fs::create_symlink("../a.txt", root_ / "secret/to_a");
  }

  // "@" in a text stands for the root.
  std::string At(std::string text) const {
    for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at)) {
      text.replace(at, 1, root_.native());
      at += root_.native().size();
    }
    return text;
  }

  quay_test::TempDir temp_;
  fs::path root_ = fs::canonical(temp_.path()) / "root";
  FileAccessPolicyConfig config_{false, false, {At("@/*")}, {}, {At("@/secret/*"), At("@/n")}};
};

TEST_F(FilterGrepOutputTest, KeepsOnlyAllowedLines) {
  std::string shapes;  // more "-N-" candidates than are tried
  for (int i = 0; i < 40; ++i) shapes += "-1-";
  (void)temp_.WriteFile("root/m" + shapes + "/f", "x\n");
  const struct {
    const char* name;
    std::string input;
    const char* expected;
    const char* base = "@";  // "@/a.txt" when rg searched one file
  } cases[] = {
      {"refused_line_and_feed_go", "@/a.txt:1:x\n@/secret/s.txt:2:y\n@/a.txt:3:z\n", "@/a.txt:1:x\n@/a.txt:3:z\n"},
      {"context_and_separators", "@/a.txt-1-c\n--\n@/secret/s.txt-12-c\n@/a.txt:2:m\n--\n",
       "@/a.txt-1-c\n--\n@/a.txt:2:m\n--\n"},
      {"longer_candidate_when_shorter_fails", "@/dir-3-x/f.txt:7:hit\n", "@/dir-3-x/f.txt:7:hit\n"},
      {"shorter_candidate_decides", "@/n-3-x/f.txt:7:hit\n@/a.txt:1:x", "@/a.txt:1:x"},
      {"link_into_refused_directory", "@/to_secret/s.txt:1:y\n@/file_link:2:y\n@/a.txt:1:x\n", "@/a.txt:1:x\n"},
      {"refused_link_to_allowed_file", "@/secret/to_a:1:x\n", ""},
      {"relative_joined_to_base", "a.txt:1:x\nsecret/s.txt:1:y\n./to_secret/s.txt:3:y\n", "a.txt:1:x\n"},
      {"dot_dot_normalised", "@/secret/../a.txt:1:x\n@/a.txt/../secret/s.txt:1:y\n", "@/secret/../a.txt:1:x\n"},
      {"carriage_return_kept", "@/a.txt:1:x\r\n@/secret/s.txt:1:y\r\n", "@/a.txt:1:x\r\n"},
      {"unresolved_dropped", "@/gone.txt:1:x\n@/gone.txt:2:@/a.txt:3:\n", ""},
      {"invalid_utf8", "@/\xFF.txt:1:\xFE\n\xFF:1:\xC3\n\xC3\xA9\n", "@/\xFF.txt:1:\xFE\n\xC3\xA9\n"},
      {"single_file_lines", "12:text\n13-ctx\n14:a:3:b\n", "12:text\n13-ctx\n", "@/a.txt"},
      {"many_candidates_dropped", "@/m" + shapes + "/f:1:x\n@/a.txt:1:x\n", "@/a.txt:1:x\n"},
  };
  for (const auto& c : cases) {
    const fs::path base = At(c.base);
    std::string text = At(c.input);
    FilterGrepOutput(base, base, CompileFileAccessPolicy(config_, /*for_write=*/false), text);
    EXPECT_EQ(text, At(c.expected)) << c.name;
  }
}

// A plain reading of the policy for the trees below, which hold no literal allow inside a deny.
bool ReferenceMatch(std::string_view p, std::string_view t) {
  if (p.empty()) return t.empty();
  if (p[0] == '*') return ReferenceMatch(p.substr(1), t) || (!t.empty() && ReferenceMatch(p, t.substr(1)));
  return !t.empty() && (p[0] == '?' || p[0] == t[0]) && ReferenceMatch(p.substr(1), t.substr(1));
}

bool ReferenceAllows(const FileAccessPolicyConfig& config, std::string text) {
  const auto fold = [&](std::string s) {
    for (char& c : s) c = (!config.case_sensitive && c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    return s;
  };
  text = fold(text);
  for (const std::string& deny : config.blacklist_patterns) {
    if (ReferenceMatch(fold(deny), text)) return false;
  }
  if (config.whitelist_patterns.empty()) return true;
  for (const std::string& allow : config.whitelist_patterns) {
    if (ReferenceMatch(fold(allow), text)) return true;
  }
  return false;
}

TEST(FilterGrepOutputPropertyTest, MatchesReferenceOnRandomTrees) {
  constexpr unsigned kSeed = 20261124;
  std::mt19937 rng(kSeed);
  const auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
  const auto pick = [&](const auto& items) { return items[rng() % items.size()]; };
  const quay_test::TempDir temp;
  // Trees cost disk work and policies nothing: each tree is judged under several policies.
  for (int tree = 0; tree < 60; ++tree) {
    const fs::path top = fs::canonical(temp.path()) / std::to_string(tree);
    const fs::path root = top / "root";
    const std::string r = root.native();
    const std::string o = (top / "out").native();
    (void)temp.WriteFile((top / "out/hidden.txt").native(), "x\n");
    (void)temp.WriteFile((top / "out/sub/deep.txt").native(), "x\n");
    fs::create_directories(root);

    std::vector<fs::path> dirs{root};
    for (const char* d : {"d0", "d1", "d2", "D3"}) {
      if (!chance(70)) continue;
      dirs.push_back(root / d);
      if (chance(40)) dirs.push_back(root / d / "sub");
      fs::create_directories(dirs.back());
    }
    const std::vector<std::string> names{"a.txt", "B.txt", "c.env", "f1", "f2"};
    std::vector<fs::path> targets{top / "out", top / "out/hidden.txt", root / "missing"};
    for (int i = 0, n = 3 + static_cast<int>(rng() % 6); i < n; ++i) {
      const fs::path file = pick(dirs) / pick(names);
      (void)temp.WriteFile(file.native(), "x\n");
      targets.push_back(file);
    }
    targets.insert(targets.end(), dirs.begin() + 1, dirs.end());
    for (int i = 0, n = static_cast<int>(rng() % 5); i < n; ++i) {
      std::error_code ignored;  // a name drawn twice keeps its first link
      fs::create_symlink(pick(targets), pick(dirs) / ("lnk" + std::to_string(i)), ignored);
    }

    // Every entry as rg might print it, links and paths through linked directories included.
    std::vector<std::string> printed{r + "/gone.txt"};
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
      if (it->is_directory() && !it->is_symlink()) continue;
      printed.push_back(it->path().native());
      if (it->is_symlink() && it->is_directory()) {
        printed.push_back(it->path().native() + "/hidden.txt");
        printed.push_back(it->path().native() + "/f1");
      }
    }
    for (int round = 0; round < 5; ++round) {
      SCOPED_TRACE("seed " + std::to_string(kSeed) + " tree " + std::to_string(tree) + " round " +
                   std::to_string(round));
      FileAccessPolicyConfig config;
      config.case_sensitive = chance(50);
      for (const std::string& p : {r + "/*", r + "/d1/*", o + "/*"}) {
        if (chance(40)) config.whitelist_patterns.push_back(p);
      }
      for (const std::string& p : {r + "/d2/*", r + "/d0/f1", std::string("*.env"), r + "/*/f2", r + "/D3/*",
                                   o + "/*", r + "/lnk0", r + "/b.txt"}) {
        if (chance(30)) config.blacklist_patterns.push_back(p);
      }
      std::string text;
      std::string expected;
      for (const std::string& path : printed) {
        const std::string shown = chance(20) ? fs::path(path).lexically_relative(root).native() : path;
        const std::string lines = shown + ":3:match\n" + shown + "-4-context\n";
        std::error_code error;
        const fs::path real = fs::canonical(path, error);
        const bool keep = !error && ReferenceAllows(config, path) && ReferenceAllows(config, real.native());
        text += lines + "--\n";
        expected += (keep ? lines : "") + "--\n";
      }
      const std::string input = text;
      FilterGrepOutput(root, root, CompileFileAccessPolicy(config, /*for_write=*/false), text);
      ASSERT_EQ(text, expected) << "input:\n" << input;
    }
  }
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
