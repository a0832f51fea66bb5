// Strict UTF-8: the validity of sequences, the conversions to and from UTF-16, and the helpers
// of readers that see a text in pieces.
#include "brimo_stack_common/utf8.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

namespace brimo_stack {
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

// The validator and the conversion share one decoder; on random bytes they must agree.
TEST(Utf8Agreement, ValidatorAndConversionAgreeOnRandomBytes) {
  std::mt19937 random(20261123);
  const unsigned char interesting[] = {0x00, 0x41, 0x7F, 0x80, 0xBF, 0xC0, 0xC2, 0xDF, 0xE0,
                                       0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF, 0x9F, 0xA0, 0x8F, 0x90};
  size_t valid_seen = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes(random() % 6, '\0');
    for (char& c : bytes) c = static_cast<char>(interesting[random() % sizeof(interesting)]);
    bool converts = true;
    try {
      (void)Utf8ToWide(bytes);
    } catch (const std::range_error&) {
      converts = false;
    }
    ASSERT_EQ(IsValidUtf8(bytes), converts) << testing::PrintToString(bytes);
    valid_seen += converts ? 1 : 0;
  }
  EXPECT_GT(valid_seen, 1000u);
}

TEST(Utf8Wide, RoundTripAndStrictness) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF";
  const std::u16string wide = Utf8ToWide(text);
  EXPECT_EQ(wide, (std::u16string{u'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0xFFFF, 0xDBFF, 0xDFFF}));
  EXPECT_EQ(WideToUtf8(wide), text);
  for (const std::u16string& bad : {std::u16string{0xD800}, std::u16string{0xDC00, u'a'}, std::u16string{0xD800, u'a'}}) {
    EXPECT_THROW((void)WideToUtf8(bad), std::range_error);
  }
  // Which bytes Utf8ToWide refuses is checked against the validator above.
  try {
    (void)Utf8ToWide("\xFF");
    ADD_FAILURE() << "\\xFF was converted";
  } catch (const std::range_error& error) {
    EXPECT_STREQ(error.what(), "bad conversion");
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

}  // namespace
}  // namespace brimo_stack
