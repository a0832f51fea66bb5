// Strict UTF-8, escaping costs and the read-line prefix, case by case.
#include <gtest/gtest.h>

#include "quay_tools_host/files/file_read_primitives.h"
#include "quay_tools_host/files/file_text.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

struct Utf8Case {
  const char* name;
  std::string bytes;
  bool valid;
};

class IsValidUtf8Test : public ::testing::TestWithParam<Utf8Case> {};

TEST_P(IsValidUtf8Test, DecidesLikeTheStrictDecoder) { EXPECT_EQ(IsValidUtf8(GetParam().bytes), GetParam().valid); }

INSTANTIATE_TEST_SUITE_P(
    Cases, IsValidUtf8Test,
    ::testing::Values(Utf8Case{"empty", "", true}, Utf8Case{"ascii", "hello\n", true},
                      Utf8Case{"two_bytes", "\xC3\xA9", true}, Utf8Case{"u_ffff", "\xEF\xBF\xBF", true},
                      Utf8Case{"u_10ffff", "\xF4\x8F\xBF\xBF", true},
                      Utf8Case{"overlong_nul", "\xC0\x80", false}, Utf8Case{"overlong_three", "\xE0\x80\xAF", false},
                      Utf8Case{"overlong_four", "\xF0\x8F\xBF\xBF", false},
                      Utf8Case{"surrogate", "\xED\xA0\x80", false}, Utf8Case{"above_max", "\xF4\x90\x80\x80", false},
                      Utf8Case{"lone_continuation", "a\x80", false}, Utf8Case{"cut_off", "a\xE2\x82", false},
                      Utf8Case{"bad_continuation", "\xE2\x28\xA1", false}, Utf8Case{"byte_ff", "\xFF", false}),
    [](const auto& info) { return std::string(info.param.name); });

// The whole-file load checks each block as it comes; sequences cut by a block's end, valid or
// not, must get the verdict of one check over the whole text.
TEST(ReadValidatedUtf8FileTest, SequencesAcrossBlockEndsAreJudgedWhole) {
  const quay_test::TempDir dir;
  const std::string sequences[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xE2\x82", "\xF0\x9F\x98",
                                   "\xE2\x28\xA1", "\xED\xA0\x80", "\x80\x80"};
  for (const std::string& sequence : sequences) {
    for (size_t before = kFileBlockSize - 4; before <= kFileBlockSize; ++before) {
      const std::string content = std::string(before, 'a') + sequence + "tail";
      const auto path = dir.WriteFile("f.txt", content);
      std::string text;
      const auto result = ReadValidatedUtf8File(path, text, 1 << 20);
      ASSERT_EQ(result.ok, IsValidUtf8(content)) << testing::PrintToString(sequence) << " after " << before;
      if (result.ok) {
        EXPECT_EQ(text, content);
      } else {
        EXPECT_EQ(result.error->message, "UNSUPPORTED_ENCODING: file is not valid UTF-8: " + path.string());
      }
    }
  }
}

TEST(CompleteUtf8PrefixTest, HoldsBackOnlyACutSequence) {
  const std::pair<std::string, size_t> cases[] = {{"", 0}, {"ab", 2}, {"a\xC3", 1}, {"a\xC3\xA9", 3},
                                                  {"a\xE2\x82", 1}, {"a\xF0\x9F\x98", 1}, {"\xF0\x9F\x98\x80", 4},
                                                  {"a\xFF", 2}, {"a\x80\x80\x80", 4}};
  for (const auto& [bytes, complete] : cases) {
    EXPECT_EQ(CompleteUtf8Prefix(bytes), complete) << testing::PrintToString(bytes);
  }
}

TEST(Utf8SequenceLengthTest, FollowsTheLeadByteRanges) {
  const std::pair<unsigned, int> cases[] = {{0x00, 1}, {0x7F, 1}, {0x80, 0}, {0xBF, 0}, {0xC0, 0}, {0xC1, 0},
                                            {0xC2, 2}, {0xDF, 2}, {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xF4, 4},
                                            {0xF5, 0}, {0xFF, 0}};
  for (const auto& [lead, length] : cases) {
    EXPECT_EQ(Utf8SequenceLength(static_cast<unsigned char>(lead)), length) << std::hex << lead;
  }
}

TEST(JsonEscapedCostTest, CountsShortAndUnicodeEscapes) {
  EXPECT_EQ(JsonEscapedCost(""), 0u);
  EXPECT_EQ(JsonEscapedCost("ab"), 2u);
  EXPECT_EQ(JsonEscapedCost("\t\n\r\b\f\"\\"), 14u);
  EXPECT_EQ(JsonEscapedCost(std::string("\x01\x1F", 2)), 12u);
  EXPECT_EQ(JsonEscapedCost(std::string(1, '\0')), 6u);
  EXPECT_EQ(JsonEscapedCost("\x7F\xC3\xA9"), 3u);
  EXPECT_EQ(JsonEscapedCost(FormatReadLineNumber(12)), 8u);
}

TEST(FormatReadLineNumberTest, PadsToSixColumnsAndGrowsBeyond) {
  EXPECT_EQ(FormatReadLineNumber(1), "     1\t");
  EXPECT_EQ(FormatReadLineNumber(999999), "999999\t");
  EXPECT_EQ(FormatReadLineNumber(1000000), "1000000\t");
}

struct PrefixCase {
  const char* line;
  bool has_prefix;
  uint64_t number;
  size_t length;
};

class ParseReadLinePrefixTest : public ::testing::TestWithParam<PrefixCase> {};

TEST_P(ParseReadLinePrefixTest, RecognisesOnlyTheReadForm) {
  const auto parsed = ParseReadLinePrefix(GetParam().line);
  ASSERT_EQ(parsed.has_value(), GetParam().has_prefix) << GetParam().line;
  if (parsed) {
    EXPECT_EQ(parsed->number, GetParam().number);
    EXPECT_EQ(parsed->prefix_length, GetParam().length);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParseReadLinePrefixTest,
    ::testing::Values(PrefixCase{"     1\tx", true, 1, 7}, PrefixCase{"123456\t", true, 123456, 7},
                      PrefixCase{"1234567\tx", true, 1234567, 8}, PrefixCase{"   12\tx", false, 0, 0},
                      PrefixCase{"      \tx", false, 0, 0}, PrefixCase{"     0\tx", false, 0, 0},
                      PrefixCase{" 1234567\tx", false, 0, 0}, PrefixCase{"    1a\tx", false, 0, 0},
                      PrefixCase{"     1 x", false, 0, 0}, PrefixCase{"   1 2\tx", false, 0, 0},
                      PrefixCase{"18446744073709551617\t", true, 1, 21}));

struct StripCase {
  const char* name;
  std::string input;
  std::string expected;
};

class StripReadLineNumbersTest : public ::testing::TestWithParam<StripCase> {};

TEST_P(StripReadLineNumbersTest, StripsAllOrNothing) {
  EXPECT_EQ(StripReadLineNumbers(GetParam().input), GetParam().expected);
  // The copy-free form agrees, and reports a change only when there is one.
  std::string stripped = "stale";
  const bool changed = TryStripReadLineNumbers(GetParam().input, stripped);
  EXPECT_EQ(changed, GetParam().expected != GetParam().input);
  EXPECT_EQ(changed ? stripped : GetParam().input, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StripReadLineNumbersTest,
    ::testing::Values(StripCase{"empty", "", ""},
                      StripCase{"run_from_any_start", "    41\ta\n    42\tb", "a\nb"},
                      StripCase{"keeps_terminators", "     1\ta\r\n     2\tb\r     3\tc\n", "a\r\nb\rc\n"},
                      StripCase{"gap_in_numbers", "     1\ta\n     3\tb\n", "     1\ta\n     3\tb\n"},
                      StripCase{"one_line_without_prefix", "     1\ta\nb\n", "     1\ta\nb\n"},
                      StripCase{"plain_text", "hello", "hello"},
                      StripCase{"wide_numbers", " 999999\ta\n1000000\tb\n", " 999999\ta\n1000000\tb\n"},
                      StripCase{"six_to_seven_digits", "999999\ta\n1000000\tb\n", "a\nb\n"},
                      StripCase{"only_a_prefix", "     7\t", ""},
                      StripCase{"tab_behind_a_terminator", "     1\n\tx", "     1\n\tx"},
                      StripCase{"empty_line_between", "     1\ta\n\n     2\tb", "     1\ta\n\n     2\tb"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
