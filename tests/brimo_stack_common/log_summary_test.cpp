// Log-safe summaries: hashes, extensions, the summary line and quoting.
#include "brimo_stack_common/log_summary.h"

#include <gtest/gtest.h>

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

TEST(TextOrSummaryForLog, LimitIsInclusive) {
  EXPECT_EQ(TextOrSummaryForLog("abcd", 4), "abcd");
  EXPECT_EQ(TextOrSummaryForLog("abcde", 4), "{len=5, hash=6348c52d762364a8, ext=\"\"}");
}

TEST(QuoteForLog, EscapesAndReplaces) {
  EXPECT_EQ(QuoteForLog("a\"b\n"), "\"a\\\"b\\n\"");
  EXPECT_EQ(QuoteForLog("\xC3\xA9"), "\"\xC3\xA9\"");
  EXPECT_EQ(QuoteForLog("x\xFFy"), "\"x\xEF\xBF\xBDy\"");
}

}  // namespace
}  // namespace brimo_stack
