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
  return (!name.starts_with('.') || segment.starts_with('.')) && ReferenceNameMatch(segment, name);
}

bool ReferenceMatches(std::string pattern, std::string_view path) {
  std::replace(pattern.begin(), pattern.end(), '\\', '/');
  const std::vector<std::string> segments = Split(pattern);
  std::vector<std::string> names = Split(path);
  if (names.back().empty() || names.back() == ".") return false;
  std::erase_if(names, [](const std::string& name) { return name.empty() || name == "."; });
  const auto globstars_from = [&](size_t s) {
    return std::all_of(segments.begin() + static_cast<ptrdiff_t>(s), segments.end(),
                       [](const std::string& segment) { return segment == "**"; });
  };
  // Segments from s take names from n on, and the last name is taken by a segment behind which
  // only globstars stand ("**" for itself and the rest, any other segment as the very last).
  std::vector<int8_t> memo(segments.size() * names.size(), -1);
  const auto consumes = [&](const auto& self, size_t s, size_t n) -> bool {
    if (s == segments.size()) return false;
    int8_t& known = memo[s * names.size() + n];
    if (known < 0) {
      const bool last = n + 1 == names.size();
      if (segments[s] == "**") {
        known = self(self, s + 1, n) ||
                (ReferenceSegmentMatch("**", names[n]) && (last ? globstars_from(s) : self(self, s, n + 1)));
      } else {
        known = ReferenceSegmentMatch(segments[s], names[n]) &&
                (last ? s + 1 == segments.size() : self(self, s + 1, n + 1));
      }
    }
    return known != 0;
  };
  return consumes(consumes, 0, 0);
}

// --- Table cases. ---

std::string Repeat(std::string_view piece, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += piece;
  return text;
}

TEST(GlobPatternTest, MatchesPathsByTheRules) {
  const struct {
    std::string pattern;
    std::vector<std::string> matching, other;
  } cases[] = {
      {"*.TXT", {"a.TXT"}, {"a.txt", ".a.TXT"}},
      {"[ab].txt", {"[ab].txt"}, {"a.txt"}},
      {"{a,b}", {"{a,b}"}, {"a"}},
      {"!x", {"!x"}, {"y"}},
      {"a\\b.txt", {"a/b.txt"}, {"a\\b.txt"}},  // in a path the backslash is a byte of the name
      {"*", {"a"}, {".git", "a/b"}},
      {".*", {".git"}, {"a"}},
      {".git/*", {".git/config"}, {}},
      {"**", {"a/b/c"}, {".git/x", "a/.b", "a/", "a/b/."}},
      {"a/", {}, {"a", "a/b"}},
      {"a//b", {}, {"a/b"}},  // the empty segment never meets a name
      {"src/**", {"src/x", "src/x/y"}, {"src"}},
      {"src/**/**", {"src/x"}, {"src"}},
      {"**/b", {"b", "a/b", "a/c/b"}, {"a/b/c"}},
      {"a*b*c", {"abcbc"}, {"abcbd"}},
      {"?", {}, {"\xC3\xA9"}},  // one byte, not one character
      {"??", {"\xC3\xA9"}, {}},
      {"a", {"./a"}, {"a/", "a/.", ""}},
      {"a/b", {"a//b", "a/./b"}, {"a"}},
      {Repeat("**/", 62) + "a", {"x/y/a"}, {"x/y/b"}},  // 63 segments: the mask's last bit
      {Repeat("**/", 63) + "a", {"x/y/a"}, {"x/y/b"}},  // 64 segments: the list form
      {Repeat("*/", 70) + "a", {Repeat("x/", 70) + "a"}, {Repeat("x/", 69) + "a"}},
  };
  for (const auto& c : cases) {
    for (const bool matches : {true, false}) {
      for (const std::string& path : matches ? c.matching : c.other) {
        EXPECT_EQ(MatchesPath(GlobPattern(c.pattern), path), matches) << c.pattern << " vs " << path;
        EXPECT_EQ(ReferenceMatches(c.pattern, path), matches) << "reference: " << c.pattern << " vs " << path;
      }
    }
  }
}

// Each segment as text, kind (0 literal, 1 star, 2 globstar, 3 wildcard) and '+' when only
// globstars follow.
TEST(GlobPatternTest, CompilesSegments) {
  const GlobPattern pattern("a\\**/*/x?y//**/**");
  std::string compiled;
  for (const GlobSegment& s : pattern.segments()) {
    compiled += s.text + ":" + std::to_string(static_cast<int>(s.kind)) + (s.only_globstars_follow ? "+ " : " ");
  }
  EXPECT_EQ(compiled, "a:0 **:2 *:1 x?y:3 :0 **:2+ **:2+ ");
  EXPECT_TRUE(GlobPattern(Repeat("a/", 62) + "a").uses_bitmask());
  EXPECT_FALSE(GlobPattern(Repeat("a/", 63) + "a").uses_bitmask());
}

TEST(GlobPatternTest, StepTellsWhetherDeeperPathsCanMatch) {
  const std::string long_pattern = Repeat("a/", 64) + "b";
  const struct {
    std::string pattern;
    std::vector<std::string> names;
    bool matched, can_continue;
  } cases[] = {
      {"src/**", {"src"}, false, true},     {"src/**", {"lib"}, false, false},
      {"**/b", {"b"}, true, true},          {"a/b", {"a", "b"}, true, false},
      {long_pattern, {"a"}, false, true},   {long_pattern, {"b"}, false, false},
      {long_pattern, Split(long_pattern), true, false},
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
    for (size_t count = 1 + Below(max_tokens); count > 0; --count) text += kTokens[Below(std::size(kTokens))];
    return text;
  }

  std::string Path(size_t max_bytes) {
    static constexpr std::string_view kBytes = "aabbA./././*?\\[]{}!,";
    std::string text;
    for (size_t count = 1 + Below(max_bytes); count > 0; --count) text += kBytes[Below(kBytes.size())];
    return text;
  }

  // A path the pattern is likely to match: every wildcard replaced by a few random bytes.
  std::string PathLike(std::string_view pattern) {
    std::string text;
    for (const char c : pattern) text += c == '*' || c == '?' ? Path(3) : std::string(1, c == '\\' ? '/' : c);
    return text;
  }

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
      for (size_t names = segment == "**" ? Below(3) : 1; names > 0; --names) {
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

// Also the list form against the mask form: a leading "**/" gives the same answers once as
// 64 times.
TEST(GlobPatternDifferentialTest, ShortPatternsAgreeWithTheReferenceInBothForms) {
  RandomText random(20240615);
  size_t compared = 0, matched = 0;
  for (int i = 0; i < 60000 && !testing::Test::HasFatalFailure(); ++i) {
    const std::string pattern = random.Pattern(10);
    const GlobPattern compiled(pattern), mask_form("**/" + pattern), list_form(Repeat("**/", 64) + pattern);
    for (const std::string& path : {random.Path(12), random.PathLike(pattern)}) {
      const bool expected = ReferenceMatches(pattern, path);
      ASSERT_EQ(MatchesPath(compiled, path), expected) << "pattern \"" << pattern << "\" path \"" << path << '"';
      ASSERT_EQ(MatchesPath(list_form, "x/" + path), MatchesPath(mask_form, "x/" + path))
          << "list form: pattern \"" << pattern << "\" path \"x/" << path << '"';
      ++compared;
      matched += expected ? 1 : 0;
    }
  }
  // Both answers must be frequent, or agreement says little.
  EXPECT_GT(matched, compared / 20) << matched << " of " << compared;
  EXPECT_LT(matched, compared / 2) << matched << " of " << compared;
}

TEST(GlobPatternDifferentialTest, LongPatternsAgreeWithTheReference) {
  RandomText random(77);
  size_t matched = 0;
  for (int i = 0; i < 3000 && !testing::Test::HasFatalFailure(); ++i) {
    const std::vector<std::string> segments = random.LongPattern(60);
    std::string pattern;
    for (const std::string& segment : segments) pattern += segment + "/";
    pattern.pop_back();
    const std::string path = random.PathFor(segments);
    const bool expected = ReferenceMatches(pattern, path);
    ASSERT_EQ(MatchesPath(GlobPattern(pattern), path), expected) << "pattern " << pattern << " path " << path;
    matched += expected ? 1 : 0;
  }
  EXPECT_GT(matched, 3000U / 20);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
