// The glob language: table cases for its rules, and random patterns and paths against a plain
// backtracking matcher of the same rules, in both state forms.
#include "quay_tools_host/search/glob_pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Counts allocations of this test program, to hold the walk's hot path to none.
size_t g_allocations = 0;

}  // namespace

void* operator new(size_t size) {
  ++g_allocations;
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }

namespace brimo_stack::quay_tools_host::internal {
namespace {

// --- The reference: the rules as written, by recursion over every way of consuming names. ---

std::vector<std::string> Split(std::string_view text) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t slash; (slash = text.find('/', start)) != std::string_view::npos; start = slash + 1) {
    pieces.emplace_back(text.substr(start, slash - start));
  }
  pieces.emplace_back(text.substr(start));
  return pieces;
}

// '*' any run of bytes, '?' one byte, every other byte itself.
bool ReferenceNameMatch(std::string_view pattern, std::string_view name) {
  if (pattern.empty()) return name.empty();
  if (pattern.front() == '*') {
    for (size_t skip = 0; skip <= name.size(); ++skip) {
      if (ReferenceNameMatch(pattern.substr(1), name.substr(skip))) return true;
    }
    return false;
  }
  return !name.empty() && (pattern.front() == '?' || pattern.front() == name.front()) &&
         ReferenceNameMatch(pattern.substr(1), name.substr(1));
}

bool ReferenceSegmentMatch(std::string_view segment, std::string_view name) {
  if (!name.empty() && name.front() == '.' && (segment.empty() || segment.front() != '.')) return false;
  return ReferenceNameMatch(segment, name);
}

class ReferenceMatcher {
 public:
  ReferenceMatcher(std::string pattern, std::string_view path) {
    std::replace(pattern.begin(), pattern.end(), '\\', '/');
    segments_ = Split(pattern);
    const std::vector<std::string> all_names = Split(path);
    ends_in_nothing_ = all_names.back().empty() || all_names.back() == ".";
    for (const std::string& name : all_names) {
      if (!name.empty() && name != ".") names_.push_back(name);
    }
    memo_.assign((segments_.size() + 1) * (names_.size() + 1), kUnknown);
  }

  bool Matches() { return !ends_in_nothing_ && Consumes(0, 0); }

 private:
  static constexpr char kUnknown = 2;

  bool OnlyGlobstarsFrom(size_t s) const {
    return std::all_of(segments_.begin() + static_cast<ptrdiff_t>(s), segments_.end(),
                       [](const std::string& seg) { return seg == "**"; });
  }

  // Segments from s take names from n on, and the last name is taken by a segment behind which
  // only globstars stand ("**" for itself and the rest, any other segment as the very last).
  bool Consumes(size_t s, size_t n) {
    if (s == segments_.size() || n == names_.size()) return false;
    char& known = memo_[s * (names_.size() + 1) + n];
    if (known != kUnknown) return known != 0;
    const bool last_name = n + 1 == names_.size();
    bool result = false;
    if (segments_[s] == "**") {
      result = Consumes(s + 1, n) ||
               (ReferenceSegmentMatch("**", names_[n]) && (last_name ? OnlyGlobstarsFrom(s) : Consumes(s, n + 1)));
    } else if (ReferenceSegmentMatch(segments_[s], names_[n])) {
      result = last_name ? s + 1 == segments_.size() : Consumes(s + 1, n + 1);
    }
    known = result ? 1 : 0;
    return result;
  }

  std::vector<std::string> segments_;
  std::vector<std::string> names_;
  bool ends_in_nothing_ = false;
  std::vector<char> memo_;
};

bool ReferenceMatches(std::string_view pattern, std::string_view path) {
  return ReferenceMatcher(std::string(pattern), path).Matches();
}

// --- Table cases. ---

std::string Repeat(std::string_view piece, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += piece;
  return text;
}

TEST(GlobPatternTest, MatchesPathsByTheRules) {
  const struct {
    std::string pattern, path;
    bool matches;
  } cases[] = {
      {"*.TXT", "a.txt", false},
      {"*.txt", "a.txt", true},
      {"[ab].txt", "[ab].txt", true},
      {"[ab].txt", "a.txt", false},
      {"{a,b}", "{a,b}", true},
      {"{a,b}", "a", false},
      {"!x", "!x", true},
      {"!x", "y", false},
      {"a\\b.txt", "a/b.txt", true},
      {"a\\b.txt", "a\\b.txt", false},  // in a path the backslash is a byte of the name
      {"a/b.txt", "a/b.txt", true},
      {"*", "a", true},
      {"*", ".git", false},
      {"*", "a/b", false},
      {".*", ".git", true},
      {".*", "a", false},
      {"*.txt", ".a.txt", false},
      {"**", ".git/x", false},
      {"**", "a/.b", false},
      {"**", "a/b/c", true},
      {".git/*", ".git/config", true},
      {"a/", "a", false},
      {"a/", "a/b", false},
      {"a//b", "a/b", false},  // the empty segment never meets a name
      {"src/**", "src", false},
      {"src/**", "src/x", true},
      {"src/**", "src/x/y", true},
      {"src/**/**", "src/x", true},
      {"**/b", "b", true},
      {"**/b", "a/b", true},
      {"**/b", "a/c/b", true},
      {"**/b", "a/b/c", false},
      {"**/*.h", "include/sys/stat.h", true},
      {"src/**/test_*.cpp", "src/test_a.cpp", true},
      {"src/**/test_*.cpp", "src/a/b/test_x.cpp", true},
      {"src/**/test_*.cpp", "lib/test_x.cpp", false},
      {"a?c", "abc", true},
      {"a?c", "ac", false},
      {"?", "\xC3\xA9", false},  // '?' is one byte, not one character
      {"??", "\xC3\xA9", true},
      {"a*", "a*b", true},  // a '*' byte in a name is just a byte for the pattern's '*'
      {"*x", "*yx", true},
      {"*a*b", "xaab", true},
      {"a*b*c", "abcbc", true},
      {"a*b*c", "abcbd", false},
      {"a", "./a", true},
      {"a/b", "a//b", true},
      {"a/b", "a/./b", true},
      {"a", "a/", false},
      {"a", "a/.", false},
      {"**", "a/", false},
      {"a/**", "a/b/.", false},
      {"a", "", false},
      {"a/b", "a", false},
      {Repeat("**/", 62) + "a", "x/y/a", true},  // 63 segments: the mask's last bit
      {Repeat("**/", 63) + "a", "x/y/a", true},  // 64 segments: the list form
      {Repeat("**/", 63) + "a", "x/y/b", false},
      {Repeat("*/", 70) + "a", Repeat("x/", 70) + "a", true},
      {Repeat("*/", 70) + "a", Repeat("x/", 69) + "a", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MatchesPath(GlobPattern(c.pattern), c.path), c.matches) << c.pattern << " vs " << c.path;
    EXPECT_EQ(ReferenceMatches(c.pattern, c.path), c.matches) << "reference: " << c.pattern << " vs " << c.path;
  }
}

TEST(GlobPatternTest, CompilesSegments) {
  const GlobPattern pattern("a\\**/*/x?y//**/**");
  const struct {
    const char* text;
    GlobSegmentKind kind;
    bool only_globstars_follow;
  } expected[] = {
      {"a", GlobSegmentKind::kLiteral, false},    {"**", GlobSegmentKind::kGlobstar, false},
      {"*", GlobSegmentKind::kStar, false},       {"x?y", GlobSegmentKind::kWildcard, false},
      {"", GlobSegmentKind::kLiteral, false},     {"**", GlobSegmentKind::kGlobstar, true},
      {"**", GlobSegmentKind::kGlobstar, true},
  };
  ASSERT_EQ(pattern.segments().size(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(pattern.segments()[i].text, expected[i].text) << i;
    EXPECT_EQ(pattern.segments()[i].kind, expected[i].kind) << i;
    EXPECT_EQ(pattern.segments()[i].only_globstars_follow, expected[i].only_globstars_follow) << i;
  }
  EXPECT_TRUE(GlobPattern(Repeat("a/", 62) + "a").uses_bitmask());
  EXPECT_FALSE(GlobPattern(Repeat("a/", 63) + "a").uses_bitmask());
}

TEST(GlobPatternTest, StepTellsWhetherDeeperPathsCanMatch) {
  const struct {
    std::string pattern;
    std::vector<std::string> names;
    bool matched, can_continue;
  } cases[] = {
      {"src/**", {"src"}, false, true},
      {"src/**", {"lib"}, false, false},
      {"**/b", {"b"}, true, true},
      {"a/b", {"a", "b"}, true, false},
      {"*", {".git"}, false, false},
      {"a/*", {"a"}, false, true},
      {Repeat("a/", 64) + "b", {"a"}, false, true},
      {Repeat("a/", 64) + "b", {"b"}, false, false},
      {Repeat("a/", 64) + "b", Split(Repeat("a/", 64) + "b"), true, false},
      {Repeat("**/", 64) + "b", {"b"}, true, true},
      {"a/" + Repeat("**/", 64) + "**", {"a", "x"}, true, true},
  };
  for (const auto& c : cases) {
    const GlobPattern pattern(c.pattern);
    GlobStep step{pattern.InitialState(), false, true};
    for (const std::string& name : c.names) step = pattern.Advance(step.state, name);
    EXPECT_EQ(step.matched, c.matched) << c.pattern;
    EXPECT_EQ(step.can_continue, c.can_continue) << c.pattern;
  }
}

TEST(GlobPatternTest, MaskFormAdvancesWithoutAllocating) {
  const GlobPattern pattern("src/**/test_*.cpp");
  GlobState state = pattern.InitialState();
  const size_t before = g_allocations;
  for (const std::string_view name : {"src", "a", "b", "test_x.cpp"}) state = pattern.Advance(state, name).state;
  EXPECT_EQ(g_allocations, before);
}

// --- Random differential: the compiled matcher against the reference. ---

class RandomText {
 public:
  explicit RandomText(uint32_t seed) : engine_(seed) {}

  size_t Below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(engine_); }

  // Tokens of the language and the bytes it takes literally, weighted towards names that match.
  std::string Pattern(size_t max_tokens) {
    static constexpr std::string_view kTokens[] = {"a", "b", "A", ".", "*", "?", "**", "/", "\\",
                                                   "[", "]", "{", "}", "!", ",", "a", "b", "*", "/"};
    std::string text;
    const size_t count = 1 + Below(max_tokens);
    for (size_t i = 0; i < count; ++i) text += kTokens[Below(std::size(kTokens))];
    return text;
  }

  std::string Path(size_t max_bytes) {
    static constexpr std::string_view kBytes = "aabbA./././*?\\[]{}!,";
    std::string text;
    const size_t count = 1 + Below(max_bytes);
    for (size_t i = 0; i < count; ++i) text += kBytes[Below(kBytes.size())];
    return text;
  }

  // A path the pattern is likely to match: every wildcard replaced by a few random bytes.
  std::string PathLike(std::string_view pattern) {
    std::string text;
    for (const char c : pattern) {
      if (c == '*' || c == '?') {
        text += Path(3);
      } else {
        text += c == '\\' ? '/' : c;
      }
    }
    return text;
  }

  // Many segments: some literal, some star, some globstar, some wildcard.
  std::vector<std::string> LongPattern(size_t min_segments) {
    static constexpr std::string_view kSegments[] = {"a", "b", "*", "**", "a*", "?", ".*", "**"};
    std::vector<std::string> segments(min_segments + Below(16));
    for (std::string& segment : segments) segment = kSegments[Below(std::size(kSegments))];
    return segments;
  }

  // Names that mostly fit the segments one by one, with an odd one out now and then.
  std::string PathFor(const std::vector<std::string>& segments) {
    std::string text;
    for (const std::string& segment : segments) {
      const size_t names = segment == "**" ? Below(3) : 1;
      for (size_t i = 0; i < names; ++i) {
        if (Below(200) == 0) {
          text += Path(3);
        } else if (segment == "?") {
          text += "ab"[Below(2)];
        } else {
          for (const char c : segment) text += c == '*' ? std::string(Below(3), 'b') : std::string(1, c);
          if (segment.back() == '*') text += 'a';  // "." alone would be skipped
        }
        text += '/';
      }
    }
    if (!text.empty()) text.pop_back();
    return text;
  }

 private:
  std::mt19937 engine_;
};

struct DifferentialCounts {
  size_t compared = 0;
  size_t matched = 0;
};

void Compare(const std::string& pattern, const std::string& path, DifferentialCounts& counts) {
  const bool expected = ReferenceMatches(pattern, path);
  ASSERT_EQ(MatchesPath(GlobPattern(pattern), path), expected)
      << "pattern \"" << pattern << "\" path \"" << path << '"';
  ++counts.compared;
  counts.matched += expected ? 1 : 0;
}

TEST(GlobPatternDifferentialTest, ShortPatternsAgreeWithTheReference) {
  RandomText random(20240615);
  DifferentialCounts counts;
  for (int i = 0; i < 60000 && !testing::Test::HasFatalFailure(); ++i) {
    const std::string pattern = random.Pattern(10);
    Compare(pattern, random.Path(12), counts);
    Compare(pattern, random.PathLike(pattern), counts);
  }
  // Both answers must be frequent, or agreement says little.
  EXPECT_GT(counts.matched, counts.compared / 20) << counts.matched << " of " << counts.compared;
  EXPECT_LT(counts.matched, counts.compared / 2) << counts.matched << " of " << counts.compared;
}

TEST(GlobPatternDifferentialTest, LongPatternsAgreeWithTheReference) {
  RandomText random(77);
  DifferentialCounts counts;
  for (int i = 0; i < 3000 && !testing::Test::HasFatalFailure(); ++i) {
    const std::vector<std::string> segments = random.LongPattern(60);
    std::string pattern;
    for (const std::string& segment : segments) pattern += segment + "/";
    pattern.pop_back();
    Compare(pattern, random.PathFor(segments), counts);
  }
  EXPECT_GT(counts.matched, counts.compared / 20) << counts.matched << " of " << counts.compared;
}

// "**/" before a pattern is the same as many of them, so one answer comes from the mask and
// the other from the list.
TEST(GlobPatternDifferentialTest, ListFormAgreesWithMaskForm) {
  RandomText random(4242);
  size_t matched = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string pattern = random.Pattern(10);
    const GlobPattern mask_form("**/" + pattern);
    const GlobPattern list_form(Repeat("**/", 64) + pattern);
    ASSERT_TRUE(mask_form.uses_bitmask());
    ASSERT_FALSE(list_form.uses_bitmask());
    for (const std::string& path : {random.Path(12), "x/" + random.PathLike(pattern)}) {
      const bool answer = MatchesPath(mask_form, path);
      ASSERT_EQ(MatchesPath(list_form, path), answer) << "pattern \"" << pattern << "\" path \"" << path << '"';
      matched += answer ? 1 : 0;
    }
  }
  EXPECT_GT(matched, 2000U);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
