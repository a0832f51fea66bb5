// The read-line prefix: its recognition and its removal, case by case (its form is in every
// answer of file_read_lines_test and e2e/file_read_test).
#include <gtest/gtest.h>

#include "quay_tools_host/files/read_line_numbers.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

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

// Numbers with a gap or running backwards stay end to end (e2e/file_edit_test, e2e/file_write_test).
INSTANTIATE_TEST_SUITE_P(
    Cases, StripReadLineNumbersTest,
    ::testing::Values(StripCase{"empty", "", ""},
                      StripCase{"run_from_any_start", "    41\ta\n    42\tb", "a\nb"},
                      StripCase{"keeps_terminators", "     1\ta\r\n     2\tb\r     3\tc\n", "a\r\nb\rc\n"},
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
