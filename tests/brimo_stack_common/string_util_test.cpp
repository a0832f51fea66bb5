// Log-safe summaries, strict UTF conversions and strict base64.
#include "brimo_stack_common/string_util.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace brimo_stack {
namespace {

TEST(HashForLog, KnownValues) {
  EXPECT_EQ(HashForLog(""), "cbf29ce484222325");
  EXPECT_EQ(HashForLog("a"), "af63dc4c8601ec8c");
  EXPECT_EQ(HashForLog("foobar"), "85944171f73967e8");
}

TEST(ExtensionOfPathText, Table) {
  const std::pair<const char*, const char*> rows[] = {
      {"C:\\work\\notes\\todo.txt", ".txt"}, {"noext", ""},     {"C:\\dir.d\\name", ""}, {"/dir.d/name", ""},
      {".bashrc", ""},                      {"name.", ""},      {"a.tar.gz", ".gz"},    {"/x/.hidden.md", ".md"},
      {"", ""},                             {"dir/", ""},
  };
  for (const auto& [text, extension] : rows) {
    EXPECT_EQ(ExtensionOfPathText(text), extension) << text;
  }
}

TEST(SummarizeTextForLog, FormatAndByteLength) {
  EXPECT_EQ(SummarizeTextForLog("C:\\work\\notes\\todo.txt"), "{len=22, hash=057e7bb37f473836, ext=\".txt\"}");
  // Length counts bytes: two characters of two bytes each.
  EXPECT_EQ(SummarizeTextForLog("\xC3\xA9\xC3\xA9").substr(0, 7), "{len=4,");
  EXPECT_EQ(SummarizePathForLog(std::filesystem::path("/a/b.c")), SummarizeTextForLog("/a/b.c"));
}

TEST(QuoteForLog, EscapesAndReplaces) {
  EXPECT_EQ(QuoteForLog("a\"b\n"), "\"a\\\"b\\n\"");
  EXPECT_EQ(QuoteForLog("\xC3\xA9"), "\"\xC3\xA9\"");
  EXPECT_EQ(QuoteForLog("x\xFFy"), "\"x\xEF\xBF\xBDy\"");
}

TEST(Utf8Wide, RoundTripAndStrictness) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF";
  const std::u16string wide = Utf8ToWide(text);
  EXPECT_EQ(wide, (std::u16string{u'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0xFFFF, 0xDBFF, 0xDFFF}));
  EXPECT_EQ(WideToUtf8(wide), text);
  for (const char* bad : {"\xC0\x80", "\xED\xA0\x80", "\x80", "\xE2\x82", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_THROW((void)Utf8ToWide(bad), std::range_error) << bad;
  }
  for (const std::u16string& bad : {std::u16string{0xD800}, std::u16string{0xDC00, u'a'}, std::u16string{0xD800, u'a'}}) {
    EXPECT_THROW((void)WideToUtf8(bad), std::range_error);
  }
  try {
    (void)Utf8ToWide("\xFF");
  } catch (const std::range_error& error) {
    EXPECT_STREQ(error.what(), "bad conversion");
  }
}

TEST(ToLowerAscii, OnlyAsciiLetters) {
  EXPECT_EQ(ToLowerAscii("AbZ@[`\xC3\x89\xFF"), "abz@[`\xC3\x89\xFF");
}

TEST(DecodeBase64Content, StrictForm) {
  struct Row {
    const char* text;
    bool valid;
    std::string bytes;
  };
  const Row rows[] = {
      {"", true, ""},
      {"QQ==", true, "A"},
      {"QUI=", true, "AB"},
      {"QUJD", true, "ABC"},
      {"QUJDRA==", true, "ABCD"},
      {"+/+/", true, "\xFB\xFF\xBF"},
      {"AAAA", true, std::string(3, '\0')},
      {"QQ=", false, ""},
      {"Q===", false, ""},
      {"QQ", false, ""},
      {"QUJD\n", false, ""},
      {"QU JD", false, ""},
      {"Q=Q=", false, ""},
      {"-_-_", false, ""},
      {"QUJDRA==QUJD", false, ""},
      {"====", false, ""},
  };
  for (const Row& row : rows) {
    bool valid = !row.valid;
    EXPECT_EQ(DecodeBase64Content(row.text, &valid), row.bytes) << row.text;
    EXPECT_EQ(valid, row.valid) << row.text;
  }
  EXPECT_EQ(DecodeBase64Content("QQ==", nullptr), "A");
}

// The standard encoding of the bytes 0..255 uses every character at every place in a group.
TEST(DecodeBase64Content, AllByteValues) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  const char* encoded =
      "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+P0BBQkNERUZHSElKS0xNTk9Q"
      "UVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3x9fn+AgYKDhIWGh4iJiouMjY6PkJGSk5SVlpeYmZqbnJ2en6Ch"
      "oqOkpaanqKmqq6ytrq+wsbKztLW2t7i5uru8vb6/wMHCw8TFxsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/g4eLj5OXm5+jp6uvs7e7v8PHy"
      "8/T19vf4+fr7/P3+/w==";
  bool valid = false;
  EXPECT_EQ(DecodeBase64Content(encoded, &valid), bytes);
  EXPECT_TRUE(valid);
}

}  // namespace
}  // namespace brimo_stack
