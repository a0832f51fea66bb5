// The blacklist as rg globs and the whitelist coverage test of a search root, table by table.
#include "quay_tools_host/search/grep_policy_filters.h"

#include <gtest/gtest.h>

namespace brimo_stack::quay_tools_host::internal {
namespace {

using Args = std::vector<std::string>;

TEST(AppendPolicyGlobFiltersTest, Translates) {
  const struct {
    const char *name, *root;
    std::vector<std::string> blacklist;
    bool case_sensitive;
    Args expected;
  } cases[] = {
      {"directory_star", "/proj", {"/proj/secret/*"}, false, {"--iglob", "!/secret/**"}},
      {"case_sensitive_glob", "/proj", {"/proj/secret/*"}, true, {"--glob", "!/secret/**"}},
      {"name_and_contents", "/proj", {"/proj/node_modules"}, false,
       {"--iglob", "!/node_modules", "--iglob", "!/node_modules/**"}},
      {"relative_wildcard_none", "/proj", {"*.env"}, false, {}},
      {"double_star_none", "/proj", {"/proj/**"}, false, {}},
      {"partial_in_tail_none", "/proj", {"/proj/a/b?c"}, false, {}},
      {"at_root_none", "/proj", {"/proj", "/proj/"}, false, {}},
      {"above_root_none", "/proj/src", {"/proj", "/"}, false, {}},
      {"star_above_root_takes_all", "/proj/src", {"/proj/*"}, false, {"--iglob", "!/**"}},
      {"other_tree_none", "/proj", {"/other/x", "/pro/x"}, false, {}},
      {"root_case_folded", "/Proj", {"/proj/x/*"}, false, {"--iglob", "!/x/**"}},
      {"root_case_counts", "/Proj", {"/proj/x/*"}, true, {}},
      {"star_takes_the_roots_rest", "/proj/src", {"/proj/*/gen"}, false,
       {"--iglob", "!/**/gen", "--iglob", "!/**/gen/**"}},
      {"star_behind_the_root_is_a_level", "/proj", {"/proj/*/gen"}, false,
       {"--iglob", "!/*/**/gen", "--iglob", "!/*/**/gen/**"}},
      {"star_between_names_is_a_level", "/proj", {"/proj/a/*/b"}, false,
       {"--iglob", "!/a/*/**/b", "--iglob", "!/a/*/**/b/**"}},
      {"deeper_root", "/proj/src", {"/proj/src/a/b.txt"}, false, {"--iglob", "!/a/b.txt", "--iglob", "!/a/b.txt/**"}},
      {"filesystem_root", "/", {"/etc/*"}, false, {"--iglob", "!/etc/**"}},
      {"bytes_escaped", "/proj", {"/proj/a[1]{x}!"}, false,
       {"--iglob", "!/a\\[1\\]\\{x\\}\\!", "--iglob", "!/a\\[1\\]\\{x\\}\\!/**"}},
      {"backslash_is_a_name_byte", "/proj", {"/proj\\x/y"}, false, {}},
      {"backslash_escaped_in_name", "/proj", {"/proj/a\\b/*"}, false, {"--iglob", "!/a\\\\b/**"}},
      {"duplicates_once_in_order", "/proj", {"/proj/b/*", "/proj//a/*", "/proj/b/*/", "/proj/a"}, false,
       {"--iglob", "!/a", "--iglob", "!/a/**", "--iglob", "!/b/**"}},
  };
  for (const auto& c : cases) {
    FileAccessPolicyConfig policy;
    policy.case_sensitive = c.case_sensitive;
    policy.blacklist_patterns = c.blacklist;
    policy.whitelist_patterns = {"/proj/ignored/*"};  // reopens nothing below the roots here
    Args arguments{"-n"};
    ASSERT_TRUE(AppendPolicyGlobFilters(c.root, policy, arguments).ok) << c.name;
    Args expected{"-n"};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    EXPECT_EQ(arguments, expected) << c.name;
  }
}

TEST(AppendPolicyGlobFiltersTest, AnEntryThatAnAllowPatternReopensStaysOff) {
  const struct {
    const char* name;
    std::vector<std::string> whitelist, read_only;
    Args expected;
  } cases[] = {
      {"whitelisted_inside", {"/proj/*", "/proj/secret/open/*"}, {}, {"--iglob", "!/other/**"}},
      {"read_only_inside", {"/proj/*"}, {"/proj/other/docs"}, {"--iglob", "!/secret/**"}},
      {"wildcard_reopens_nothing", {"/proj/*", "/proj/secret/op*"}, {},
       {"--iglob", "!/other/**", "--iglob", "!/secret/**"}},
  };
  for (const auto& c : cases) {
    FileAccessPolicyConfig policy;
    policy.blacklist_patterns = {"/proj/secret/*", "/proj/other/*"};
    policy.whitelist_patterns = c.whitelist;
    policy.read_only_patterns = c.read_only;
    Args arguments;
    ASSERT_TRUE(AppendPolicyGlobFilters("/proj", policy, arguments).ok) << c.name;
    EXPECT_EQ(arguments, c.expected) << c.name;
  }
}

TEST(AppendPolicyGlobFiltersLimitTest, MoreThanTheLimitAddsNothing) {
  FileAccessPolicyConfig policy;
  for (int i = 0; i < 128; ++i) policy.blacklist_patterns.push_back("/proj/d" + std::to_string(i));
  Args arguments;
  ASSERT_TRUE(AppendPolicyGlobFilters("/proj", policy, arguments).ok);
  EXPECT_EQ(arguments.size(), 2 * kMaxPolicyGlobFilters);  // 256 entries fit

  policy.blacklist_patterns.push_back("/proj/last/*");  // the 257th
  arguments.clear();
  ASSERT_TRUE(AppendPolicyGlobFilters("/proj", policy, arguments).ok);
  EXPECT_TRUE(arguments.empty());
}

TEST(PolicyGlobFilterTest, OrdersCaseFoldedFirstThenBytes) {
  const PolicyGlobFilter folded_b{false, "!b"};
  const PolicyGlobFilter sensitive_a{true, "!a"};
  const PolicyGlobFilter high_byte{false, "!\xC3\xA9"};
  EXPECT_LT(folded_b, sensitive_a);
  EXPECT_LT(folded_b, high_byte);
  EXPECT_FALSE(sensitive_a < sensitive_a);
}

TEST(IsRootRecursivelyCoveredTest, Decides) {
  const struct {
    const char* name;
    std::vector<std::string> whitelist, read_only;
    const char* root;
    bool case_sensitive, covered;
  } cases[] = {{"empty_lists", {}, {}, "/", false, true},
               {"below", {"/proj/*"}, {}, "/proj/src", false, true},
               {"the_directory_itself", {"/proj/*"}, {}, "/proj", false, true},
               {"above", {"/proj/*"}, {}, "/", false, false},
               {"name_prefix_only", {"/proj/*"}, {}, "/project", false, false},
               {"read_only_counts", {"/a/*"}, {"/proj/*"}, "/proj/x", false, true},
               {"wildcard_in_head", {"/pro?/*", "/*/src/*"}, {}, "/proj/src", false, false},
               {"single_file", {"/proj/a.txt", "/proj/src"}, {}, "/proj/src", false, false},
               {"star_not_behind_separator", {"/proj*"}, {}, "/proj/src", false, false},
               {"backslash_is_no_separator", {"/proj\\*"}, {}, "/proj", false, false},
               {"everything", {"/*"}, {}, "/any/where", false, true},
               {"case_folded", {"/PROJ/*"}, {}, "/proj/Src", false, true},
               {"case_counts", {"/PROJ/*"}, {}, "/proj/src", true, false},
               {"trailing_separators", {"/proj//*"}, {}, "/proj/src/", false, true}};
  for (const auto& c : cases) {
    FileAccessPolicyConfig policy;
    policy.case_sensitive = c.case_sensitive;
    policy.whitelist_patterns = c.whitelist;
    policy.read_only_patterns = c.read_only;
    policy.blacklist_patterns = {"/proj/*"};  // the blacklist plays no part
    EXPECT_EQ(IsRootRecursivelyCovered(c.root, policy), c.covered) << c.name;
  }
}

TEST(EscapeGlobLiteralTest, EscapesEachMetaByteOnly) {
  EXPECT_EQ(EscapeGlobLiteral("a![b]{c}\\d*?"), "a\\!\\[b\\]\\{c\\}\\\\d*?");
  EXPECT_EQ(EscapeGlobLiteral(std::string_view("\xFF\0x", 3)), std::string_view("\xFF\0x", 3));
  EXPECT_EQ(EscapeGlobLiteral(""), "");
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
