// The line scan and the budgeted reader on real files, at the edges of the reader's buffer.
#include <gtest/gtest.h>

#include "quay_tools_host/files/file_read_lines.h"
#include "quay_tools_host/files/read_line_numbers.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

class FileReadLinesTest : public ::testing::Test {
 protected:
  void Open(const std::string& content) {
    const auto path = dir_.WriteFile("f.txt", content);
    const CommandResult opened = OpenCachedReadHandle(path, file_);
    ASSERT_TRUE(opened.ok) << opened.error->message;
    file_.size = content.size();
  }

  // What the command would answer for (offset, limit), or the failure's message.
  std::string Read(uint64_t offset, uint64_t limit) {
    LineScanState scan;
    CommandResult result = FileLineScan(file_, offset + 1, scan);
    if (!result.ok) return "error: " + result.error->message;
    if (!scan.found) return "";
    std::string text;
    bool truncated = false;
    result = ReadLinesFrom(file_, scan.position, file_.size, limit, text, truncated);
    if (!result.ok) return "error: " + result.error->message;
    return truncated ? "truncated" : text;
  }

  quay_test::TempDir dir_;
  CachedReadFile file_;
};

struct ReadCase {
  const char* name;
  std::string content;
  uint64_t offset;
  uint64_t limit;
  std::string expected;
};

class ReadRangeTest : public FileReadLinesTest, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(ReadRangeTest, Answers) {
  Open(GetParam().content);
  const std::string answer = Read(GetParam().offset, GetParam().limit);
  if (GetParam().expected.starts_with("error: ")) {
    EXPECT_TRUE(answer.starts_with(GetParam().expected)) << answer;
  } else {
    EXPECT_EQ(answer, GetParam().expected);
  }
}

// `tail` right behind one byte less than the reader's buffer, so that it starts at the edge of a fill.
std::string AtFillEdge(const std::string& tail) { return std::string(kFileReadBufferSize - 1, 'a') + tail; }

// Many blocks of plain line feeds, then a carriage return far into the file.
std::string ManyBlocks() {
  std::string content;
  for (int i = 1; i <= 40000; ++i) content += "line " + std::to_string(i) + (i == 30000 ? "\r" : "\n");
  return content;
}

// Whole files, ranges, the end, encoding and the budget as a client asks for them are answered
// end to end (e2e/file_read_test); these are the edges of the scan and the reader's buffer.
INSTANTIATE_TEST_SUITE_P(
    Cases, ReadRangeTest,
    ::testing::Values(
        ReadCase{"no_final_terminator", "a\nb", 0, 10, "     1\ta\n     2\tb"},
        ReadCase{"after_lone_cr", "a\rb\rc", 2, 5, "     3\tc"},
        ReadCase{"cr_cr", "a\r\rb", 1, 5, "     2\t\r     3\tb"},
        ReadCase{"final_cr_opens_nothing", "a\r", 1, 5, ""},
        ReadCase{"empty_lines", "\n\n\n", 1, 5, "     2\t\n     3\t\n"},
        ReadCase{"invalid_outside_range", "\xFF\xFE\nok\n", 1, 5, "     2\tok\n"},
        ReadCase{"invalid_inside_range", "ok\n\xFF\n", 0, 5, "error: UNSUPPORTED_ENCODING: file is not valid UTF-8: "},
        ReadCase{"cut_off_at_the_end", "ok\n\xE2\x82", 0, 5, "error: UNSUPPORTED_ENCODING: file is not valid UTF-8: "},
        ReadCase{"surrogate_in_range", "\xED\xA0\x80\n", 0, 5, "error: UNSUPPORTED_ENCODING: file is not valid UTF-8: "},
        ReadCase{"multibyte_kept", "\xC3\xA9t\xC3\xA9\n", 0, 5, "     1\t\xC3\xA9t\xC3\xA9\n"},
        ReadCase{"line_one_million_has_no_blank", std::string(999'999, '\n') + "x", 999'998, 5, "999999\t\n1000000\tx"},
        ReadCase{"character_straddling_two_fills", AtFillEdge("\xE2\x82\xAC" "z\nnext\n"), 0, 1,
                 "     1\t" + AtFillEdge("\xE2\x82\xAC" "z\n")},
        ReadCase{"line_after_a_straddling_character", AtFillEdge("\xE2\x82\xAC" "z\nnext\n"), 1, 1, "     2\tnext\n"},
        // A carriage return at the end of a fill pairs with the next fill's line feed.
        ReadCase{"crlf_across_fills", AtFillEdge("\r\nb\n"), 0, 1, "     1\t" + AtFillEdge("\r\n")},
        ReadCase{"line_after_crlf_across_fills", AtFillEdge("\r\nb\n"), 1, 5, "     2\tb\n"},
        ReadCase{"end_after_crlf_across_fills", AtFillEdge("\r\nb\n"), 2, 5, ""},
        ReadCase{"lone_cr_at_the_end_of_a_fill", AtFillEdge("\rb\rc"), 1, 5, "     2\tb\r     3\tc"},
        ReadCase{"block_scan_finds_a_late_cr", ManyBlocks(), 29999, 2, " 30000\tline 30000\r 30001\tline 30001\n"},
        ReadCase{"block_scan_counts_to_the_last_line", ManyBlocks(), 39999, 5, " 40000\tline 40000\n"},
        ReadCase{"block_scan_past_the_end", ManyBlocks(), 40000, 5, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(FileReadLinesTest, RangeBeyondTheBudgetFailsEvenWhenFirstLinesFit) {
  const std::string line(1'000'000, 'x');
  std::string content;
  for (int i = 0; i < 20; ++i) content += line + "\n";
  Open(content);
  EXPECT_EQ(Read(0, 20), "truncated");
  EXPECT_EQ(Read(0, 10).size(), 10 * (line.size() + 8));
}

TEST_F(FileReadLinesTest, ReadOneLineStopsAtACharacterBoundaryOfTheBudget) {
  Open("ab\xC3\xA9\x01\n");
  BufferedFileCursor cursor(file_);
  ASSERT_TRUE(SeekCached(file_, 0).ok);
  ReadLine line;
  ASSERT_TRUE(ReadOneLine(cursor, 3, line).ok);
  EXPECT_EQ(line.text, "ab");  // the two-byte character would pass the budget
  EXPECT_FALSE(line.complete);
  ASSERT_TRUE(ReadOneLine(cursor, 8, line).ok);
  EXPECT_EQ(line.text, "\xC3\xA9\x01");
  EXPECT_EQ(line.cost, 8u);
  EXPECT_FALSE(line.complete);  // the line feed costs two more
  ASSERT_TRUE(ReadOneLine(cursor, 2, line).ok);
  EXPECT_EQ(line.text, "\n");
  EXPECT_TRUE(line.complete);
  ASSERT_TRUE(ReadOneLine(cursor, 2, line).ok);
  EXPECT_FALSE(line.has_data);
}

// The snapshot's size bounds the read both ways: growth after it is not seen, and a file
// shorter than it fails.
TEST_F(FileReadLinesTest, SnapshotSizeBoundsTheRead) {
  Open("a\nb\n");
  file_.size = 2;
  EXPECT_EQ(Read(0, 5), "     1\ta\n");
  Open("a\nb\n");
  file_.size = 100;
  EXPECT_EQ(Read(1, 1), "error: READ_FILE_FAILED: file line scan ended before its validated snapshot size: " +
                            file_.path.native());
  EXPECT_EQ(Read(0, 5), "error: READ_FILE_FAILED: cached file read ended before its validated snapshot size: " +
                            file_.path.native());
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

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
