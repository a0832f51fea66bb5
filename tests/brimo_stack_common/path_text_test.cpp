// Path text rules by text alone: preparation, normal form, long form and containment.
#include <gtest/gtest.h>

#include "brimo_stack_common/path_text.h"

namespace brimo_stack {
namespace {

TEST(PathText, PrepareWidePathCollapsesAndFoldsByText) {
  const std::pair<const char*, const char*> cases[] = {
      {"/a//b///c", "/a/b/c"}, {"/a/./b/../c/", "/a/c"}, {"/../..", "/"},   {"//", "/"},
      {"/a\\b", "/a\\b"},      {"rel/x/..", "rel"},       {"/a/b/", "/a/b"}, {"/", "/"}};
  for (const auto& [input, expected] : cases) EXPECT_EQ(PrepareWidePath(input).native(), expected) << input;
}

TEST(PathText, NormalFormDropsTrailingSeparatorsButKeepsTheRoot) {
  const std::pair<const char*, const char*> cases[] = {{"", ""},          {"/", "/"},          {"//", "/"},
                                                       {"/a/b/", "/a/b"}, {"/a/./b//", "/a/b"}, {"a/b/../", "a"},
                                                       {"/a/..", "/"},    {"a\\b\\", "a\\b\\"}};
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(NormalizeWithoutTrailingSeparator(input).native(), expected) << input;
    EXPECT_EQ(NormalizeFilePath(input, /*force_long=*/true).native(), expected) << input;
  }
}

TEST(PathText, ExtendedLengthFormKeepsAbsoluteAndRefusesRelative) {
  std::string out;
  ASSERT_TRUE(ToExtendedLengthPath("/x/y", out).ok);
  EXPECT_EQ(out, "/x/y");
  const CommandResult relative = ToExtendedLengthPath("x/y", out);
  ASSERT_FALSE(relative.ok);
  EXPECT_EQ(relative.error->message, "path must be absolute");
  EXPECT_EQ(relative.error->category, 7);
}

TEST(PathText, ContainmentNeedsASeparatorBoundary) {
  const struct {
    const char* path;
    const char* root;
    bool below;
  } cases[] = {{"/a/b", "/a/b", true},      {"/a/b/c", "/a/b", true},  {"/a", "/", true},
               {"/a/bc", "/a/b", false},    {"/a/b\\c", "/a/b", false}, {"/a", "", false},
               {"/a", "/a/b", false},       {"/tmp/qz/tool", "/tmp/qz/to", false},
               {"/tmp/QZ/to/x", "/tmp/qz/to", false}};
  for (const auto& c : cases) EXPECT_EQ(IsPathTextAtOrBelow(c.path, c.root), c.below) << c.path << " in " << c.root;
}

}  // namespace
}  // namespace brimo_stack
