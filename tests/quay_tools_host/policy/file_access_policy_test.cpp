// The policy engine's decisions, table by table, on POSIX paths.
#include <gtest/gtest.h>

#include "quay_tools_host/policy/file_access_policy.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

constexpr const char* kAllowed = "";
constexpr const char* kNoWhitelist = "FILE_ACCESS_DENIED: did not match any whitelist pattern";

struct DecisionCase {
  const char* name;
  FileAccessPolicyConfig config;
  bool for_write;
  const char* path;
  const char* refusal;  // kAllowed when the path passes
};

FileAccessPolicyConfig Config(std::vector<std::string> white, std::vector<std::string> read_only,
                              std::vector<std::string> black, bool require = false, bool case_sensitive = false) {
  return FileAccessPolicyConfig{case_sensitive, require, std::move(white), std::move(read_only), std::move(black)};
}

class CheckFileAccessTest : public ::testing::TestWithParam<DecisionCase> {};

TEST_P(CheckFileAccessTest, Decides) {
  const DecisionCase& c = GetParam();
  const CommandResult result = CheckFileAccess(CompileFileAccessPolicy(c.config, c.for_write), c.path);
  if (std::string(c.refusal).empty()) {
    EXPECT_TRUE(result.ok) << result.error->message;
  } else {
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->category, 7);
    EXPECT_EQ(result.error->code, 1);
    EXPECT_EQ(result.error->message, c.refusal);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CheckFileAccessTest,
    ::testing::Values(
        DecisionCase{"empty_lists_read", Config({}, {}, {}), false, "/etc/x", kAllowed},
        DecisionCase{"empty_lists_write", Config({}, {}, {}), true, "/etc/x", kAllowed},
        DecisionCase{"required_but_empty", Config({}, {}, {}, true), false, "/etc/x", kNoWhitelist},
        DecisionCase{"whitelist_limits_without_require", Config({"/p/*"}, {}, {}), false, "/q/a", kNoWhitelist},
        DecisionCase{"whitelist_star_crosses_levels", Config({"/p/*"}, {}, {}), false, "/p/a/b/c", kAllowed},
        DecisionCase{"star_excludes_directory_itself", Config({"/p/*"}, {}, {}), false, "/p", kNoWhitelist},
        DecisionCase{"literal_is_exact", Config({"/p"}, {}, {}), false, "/p/a", kNoWhitelist},
        DecisionCase{"case_folded_by_default", Config({"/proj/*"}, {}, {}), false, "/Proj/A.TXT", kAllowed},
        DecisionCase{"case_sensitive_differs", Config({"/proj/*"}, {}, {}, false, true), false, "/Proj/A.TXT",
                     kNoWhitelist},
        DecisionCase{"non_ascii_not_folded", Config({"/\xC3\xA9/*"}, {}, {}), false, "/\xC3\x89/a", kNoWhitelist},
        DecisionCase{"trailing_separators_ignored", Config({"/p/a/"}, {}, {}), false, "/p/a//", kAllowed},
        DecisionCase{"backslash_is_a_name_byte", Config({"/p/*"}, {}, {"/p/a"}), false, "/p/a\\b", kAllowed},
        DecisionCase{"read_only_opens_reading", Config({}, {"/ro/*"}, {}), false, "/ro/a", kAllowed},
        DecisionCase{"read_only_is_a_whitelist", Config({}, {"/ro/*"}, {}), false, "/other", kNoWhitelist},
        DecisionCase{"read_only_refuses_writing", Config({}, {"/ro/*"}, {}), true, "/ro/a",
                     "FILE_ACCESS_DENIED: matched read-only pattern: /ro/*"},
        DecisionCase{"blacklist_first_in_deny", Config({}, {"/ro/*"}, {"/ro/a"}), true, "/ro/a",
                     "FILE_ACCESS_DENIED: matched blacklist pattern: /ro/a"},
        DecisionCase{"same_text_in_both_lists", Config({}, {"/x/*"}, {"/x/*"}), true, "/x/a",
                     "FILE_ACCESS_DENIED: matched read-only pattern: /x/*"},
        DecisionCase{"same_text_read_mode", Config({}, {"/x/*"}, {"/x/*"}), false, "/x/a",
                     "FILE_ACCESS_DENIED: matched blacklist pattern: /x/*"},
        DecisionCase{"nested_whitelist_opens", Config({"/proj/open/*"}, {}, {"/proj/*"}), false, "/proj/open/a.txt",
                     kAllowed},
        DecisionCase{"nested_whitelist_sibling_refused", Config({"/proj/open/*"}, {}, {"/proj/*"}), false,
                     "/proj/b.txt", "FILE_ACCESS_DENIED: matched blacklist pattern: /proj/*"},
        DecisionCase{"wildcard_allow_overrides_nothing", Config({"/proj/op*"}, {}, {"/proj/*"}), false,
                     "/proj/open/a.txt", "FILE_ACCESS_DENIED: matched blacklist pattern: /proj/*"},
        DecisionCase{"question_mark_allow_overrides_nothing", Config({"/proj/o?en/*"}, {}, {"/proj/*"}), false,
                     "/proj/open/a.txt", "FILE_ACCESS_DENIED: matched blacklist pattern: /proj/*"},
        DecisionCase{"literal_allow_reopens_one_file", Config({"/proj/a.txt"}, {}, {"/proj/*"}), false, "/proj/a.txt",
                     kAllowed},
        DecisionCase{"equal_patterns_deny_wins", Config({"/a/*"}, {}, {"/a/*"}), false, "/a/x",
                     "FILE_ACCESS_DENIED: matched blacklist pattern: /a/*"},
        DecisionCase{"raw_text_in_message", Config({}, {}, {"/Secret//"}), false, "/secret",
                     "FILE_ACCESS_DENIED: matched blacklist pattern: /Secret//"},
        DecisionCase{"relative_pattern_needs_wildcard", Config({"src/*"}, {}, {}), false, "/w/src/a", kNoWhitelist},
        DecisionCase{"relative_pattern_with_star", Config({"*/src/*"}, {}, {}), false, "/w/src/a", kAllowed},
        DecisionCase{"question_mark_is_one_byte", Config({"/d/?"}, {}, {}), false, "/d/\xC3\xA9", kNoWhitelist},
        DecisionCase{"two_question_marks_one_char", Config({"/d/??"}, {}, {}), false, "/d/\xC3\xA9", kAllowed},
        DecisionCase{"invalid_utf8_name_decided", Config({"/d/*"}, {}, {"/d/\xFF*"}), false, "/d/\xFF\xFEx",
                     "FILE_ACCESS_DENIED: matched blacklist pattern: /d/\xFF*"},
        DecisionCase{"root_whitelist", Config({"/*"}, {}, {}), false, "/anything/at/all", kAllowed}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MatchWildcardTest, BacktracksToTheLastStar) {
  EXPECT_TRUE(MatchWildcard("*", ""));
  EXPECT_TRUE(MatchWildcard("a*b*c", "aXbYbZc"));
  EXPECT_TRUE(MatchWildcard("*.txt", "/a/b.txt"));
  EXPECT_FALSE(MatchWildcard("*.txt", "/a/b.txt.bak"));
  EXPECT_FALSE(MatchWildcard("a?c", "ac"));
  EXPECT_TRUE(MatchWildcard("a**", "a"));
  EXPECT_FALSE(MatchWildcard("", "a"));
  EXPECT_FALSE(MatchWildcard("[ab]", "a"));
}

struct SubtreeCase {
  const char* name;
  FileAccessPolicyConfig config;
  const char* directory;
  bool fully_allowed;
};

class IsSubtreeFullyAllowedTest : public ::testing::TestWithParam<SubtreeCase> {};

TEST_P(IsSubtreeFullyAllowedTest, Decides) {
  const SubtreeCase& c = GetParam();
  EXPECT_EQ(IsSubtreeFullyAllowed(CompileFileAccessPolicy(c.config, /*for_write=*/false), c.directory),
            c.fully_allowed);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IsSubtreeFullyAllowedTest,
    ::testing::Values(SubtreeCase{"no_policy", Config({}, {}, {}), "/w", true},
                      SubtreeCase{"required_empty", Config({}, {}, {}, true), "/w", false},
                      SubtreeCase{"covered", Config({"/w/*"}, {}, {}), "/w/src", true},
                      SubtreeCase{"covered_at_root_of_prefix", Config({"/w/*"}, {}, {}), "/w", true},
                      SubtreeCase{"root_pattern_covers_all", Config({"/*"}, {}, {}), "/w/src", true},
                      // The root keeps its separator when trailing ones are stripped.
                      SubtreeCase{"root_pattern_covers_the_root", Config({"/*"}, {}, {}), "///", true},
                      SubtreeCase{"not_covered", Config({"/w/*"}, {}, {}), "/v", false},
                      SubtreeCase{"literal_allow_covers_nothing", Config({"/w"}, {}, {}), "/w", false},
                      SubtreeCase{"wildcard_deny_anywhere", Config({"/w/*"}, {}, {"*.key"}), "/w", false},
                      SubtreeCase{"deny_below", Config({"/w/*"}, {}, {"/w/secret"}), "/w", false},
                      SubtreeCase{"deny_elsewhere", Config({"/w/*"}, {}, {"/v/*"}), "/w", true},
                      SubtreeCase{"deny_above_without_exception", Config({}, {}, {"/w/*"}), "/w/src", false},
                      SubtreeCase{"deny_above_with_exception", Config({"/w/src/*"}, {}, {"/w/*"}), "/w/src", true},
                      SubtreeCase{"sibling_name_with_backslash", Config({"/w/*"}, {}, {"/w\\x/*"}), "/w", true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
