// The exact-bytes replace of file_edit: counting, uniqueness and the growth limit.
#include "quay_tools_host/edits/text_edit.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>

namespace {

using brimo_stack::quay_tools_host::internal::FindExactText;
using brimo_stack::quay_tools_host::internal::kEditableFileLimit;
using brimo_stack::quay_tools_host::internal::ReplaceExactText;

// A single replacement, a deletion and a match across lines are answered end to end
// (e2e/file_edit_test), as is a match that is not unique; every replacement of all matches is
// checked against a plain rebuild further down. These texts only look like a match.
TEST(ReplaceExactText, NearMatchIsNotFoundAndLeavesTheText) {
  const std::pair<std::string, std::string> rows[] = {{"a\r\nb", "a\nb"}, {"Foo", "foo"}};
  for (const auto& [original, old_text] : rows) {
    std::string text = original;
    uint64_t replacements = 99;
    const auto result = ReplaceExactText(text, old_text, "z", false, replacements);
    ASSERT_FALSE(result.ok) << original;
    EXPECT_EQ(result.error->message, "OLD_STRING_NOT_FOUND: old_content not found");
    EXPECT_EQ(result.error->code, 1003);
    EXPECT_EQ(text, original) << "a refused edit must not touch the text";
  }
}

TEST(ReplaceExactText, GrowthLimitIsExactAndCannotOverflow) {
  // Room for exactly one more byte per match: 4 matches of growth 1 fit, 5 do not.
  std::string text(kEditableFileLimit - 4, 'a');
  text.replace(0, 4, "xxxx");
  std::string edited = text;
  uint64_t replacements = 0;
  ASSERT_TRUE(ReplaceExactText(edited, "x", "yy", true, replacements).ok);
  EXPECT_EQ(edited.size(), kEditableFileLimit);
  EXPECT_EQ(replacements, 4u);

  text[4] = 'x';
  const auto refused = ReplaceExactText(text, "x", "yy", true, replacements);
  ASSERT_FALSE(refused.ok);
  EXPECT_EQ(refused.error->message, "FILE_TOO_LARGE: edited file exceeds 67108864 bytes");
  EXPECT_EQ(refused.error->code, 0);

  // A replacement of equal length passes whatever the size.
  std::string full(kEditableFileLimit, 'b');
  ASSERT_TRUE(ReplaceExactText(full, "b", "c", true, replacements).ok);
  EXPECT_EQ(replacements, kEditableFileLimit);
  // A huge growth on a full file is refused without allocating count * growth.
  std::string one(kEditableFileLimit, 'b');
  EXPECT_FALSE(ReplaceExactText(one, "b", std::string(1 << 20, 'c'), false, replacements).ok);
}

// Random texts over two letters are dense with near matches, and their lengths put matches on
// both sides of every sixteen-byte block edge; the library's find is the reference.
TEST(FindExactText, AgreesWithTheLibraryFind) {
  std::mt19937 random(20261123);
  for (int round = 0; round < 3000; ++round) {
    std::string text(random() % 80, 'a');
    for (char& c : text) c = "ab"[random() % 2];
    std::string needle(1 + random() % 7, 'a');
    for (char& c : needle) c = "ab"[random() % 2];
    const size_t from = random() % (text.size() + 2);
    ASSERT_EQ(FindExactText(text, needle, from), std::string_view(text).find(needle, from))
        << "text " << text << " needle " << needle << " from " << from;
  }
}

// Every way of replacing everything (shrinking and equal in place, growing into a new text)
// against a plain rebuild from the library's find.
TEST(ReplaceExactText, ReplaceAllMatchesAPlainRebuild) {
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    std::string text(random() % 70, 'a');
    for (char& c : text) c = "abc"[random() % 3];
    std::string old_text(1 + random() % 3, 'a');
    for (char& c : old_text) c = "ab"[random() % 2];
    const std::string new_text(random() % 5, 'z');
    std::string expected;
    uint64_t expected_count = 0;
    size_t copied = 0;
    for (size_t at = text.find(old_text); at != std::string::npos; at = text.find(old_text, at + old_text.size())) {
      expected += text.substr(copied, at - copied) + new_text;
      copied = at + old_text.size();
      ++expected_count;
    }
    expected += text.substr(copied);

    std::string edited = text;
    uint64_t replacements = 0;
    const auto result = ReplaceExactText(edited, old_text, new_text, true, replacements);
    ASSERT_EQ(result.ok, expected_count > 0) << text << " / " << old_text;
    EXPECT_EQ(edited, expected_count > 0 ? expected : text) << text << " / " << old_text << " -> " << new_text;
    EXPECT_EQ(replacements, expected_count);
  }
}

}  // namespace
