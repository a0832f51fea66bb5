// The terminal road's text rules and the probe's reading of its output.
#include "process_runtime/conpty_transport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace brimo_stack::process_runtime;

struct NewlineCase {
  std::string in;
  bool forced;
  std::string out;
};

TEST(NormalizeConsoleNewlines, EveryLineEndBecomesOneCrLf) {
  const NewlineCase cases[] = {
      {"a\nb", false, "a\r\nb"},       {"a\r\nb", false, "a\r\nb"},   {"a\rb", false, "a\r\nb"},
      {"a\n\rb", false, "a\r\n\r\nb"}, {"a\r\r\n", false, "a\r\n\r\n"}, {"", false, ""},
      {"", true, "\r\n"},              {"a", true, "a\r\n"},          {"a\r", true, "a\r\n"},
      {"a\n", true, "a\r\n"},
  };
  for (const NewlineCase& c : cases) {
    EXPECT_EQ(NormalizeConsoleNewlines(c.in, c.forced), c.out) << c.in << " forced=" << c.forced;
  }
}

TEST(StripConsoleControls, RemovesSequencesAndControls) {
  const std::pair<std::string, std::string> cases[] = {
      {"\x1b[31mred\x1b[0m", "red"},
      {"\x1b[?25l" "x", "x"},
      {"\x1b]0;title\x07" "after", "after"},
      {"\x1b]0;title\x1b\\after", "after"},
      {"\x1b]0;title\x9c" "after", "after"},
      {"\x1b" "E" "x", "x"},
      {"tail\x1b", "tail"},
      {"a\tb\r\nc\x7f", "abc"},
      {"\x1b[12;", ""},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(StripConsoleControls(in), out) << in;
}

TEST(ConptyProbeOutput, FindsTheMarkerAcrossColoursAndReads) {
  ConptyProbeOutput output;
  output.Append("prompt$ __BRIMO_STACK_\x1b[3");
  EXPECT_FALSE(output.marker_seen());
  EXPECT_TRUE(output.stats().first_marker_part);
  EXPECT_FALSE(output.stats().second_marker_part);
  output.Append("1mCONPTY_READY__\r\n");
  EXPECT_TRUE(output.marker_seen());
  EXPECT_TRUE(output.stats().second_marker_part);
  EXPECT_EQ(output.stats().output_size, 43u);
  EXPECT_EQ(output.stats().normalized_size, 36u);
  // Once seen, it stays seen whatever follows.
  output.Append("\x1b[2J");
  EXPECT_TRUE(output.marker_seen());
}

TEST(ConptyProbeDiagnostic, NamesEveryFigure) {
  ConptyProbeStats stats;
  stats.output_size = 12;
  stats.normalized_size = 7;
  stats.second_marker_part = true;
  EXPECT_EQ(ConptyProbeDiagnostic(stats, "unavailable"),
            "ConPTY health check failed, output_size=12, normalized_size=7, first_marker_part=0, "
            "second_marker_part=1, process_exit_code=unavailable");
}

TEST(ConptyTransportStageName, KnowsEveryStageAndNoMore) {
  EXPECT_EQ(ConptyTransportStageName(ConptyTransportStage::kNone), "none");
  EXPECT_EQ(ConptyTransportStageName(ConptyTransportStage::kCreatePseudoconsole), "create_pseudoconsole");
  EXPECT_EQ(ConptyTransportStageName(ConptyTransportStage::kReadyProbeTimeout), "ready_probe_timeout");
  EXPECT_EQ(ConptyTransportStageName(static_cast<ConptyTransportStage>(13)), "unknown");
}

}  // namespace
