// The rg argument list of file_grep: fixed order, and no request text in an option's place.
#include "quay_tools_host/search/grep_arguments.h"

#include <gtest/gtest.h>

namespace {

using brimo_stack::quay_tools_host::FileGrepRequest;
using brimo_stack::quay_tools_host::internal::BuildGrepArguments;
using brimo_stack::quay_tools_host::internal::GrepMaxColumns;
using Arguments = std::vector<std::string>;

Arguments Build(const FileGrepRequest& request) {
  Arguments arguments;
  EXPECT_TRUE(BuildGrepArguments(request, "/proj", "/proj", arguments).ok);
  return arguments;
}

TEST(BuildGrepArguments, EveryFieldInItsPlace) {
  FileGrepRequest plain;
  plain.pattern = "-e";
  EXPECT_EQ(Build(plain), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "-M", "200",
                                     "--max-columns-preview", "--", "-e", "/proj"}));

  FileGrepRequest full;
  full.pattern = "--pre=x";
  full.case_insensitive = full.multiline = true;
  full.pattern_is_regex = false;
  full.glob = "--pre=y";
  full.type = "-z";
  full.context_before = 2;
  full.context_after = 3;
  full.head_limit = 4;
  EXPECT_EQ(Build(full), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "-M", "200",
                                    "--max-columns-preview", "-i", "-F", "-U", "--multiline-dotall", "--glob=--pre=y",
                                    "--type=-z", "-B", "2", "-A", "3", "--max-count", "4", "--", "--pre=x", "/proj"}));

  // Output only: a regular expression always, and no cut of long lines; zeros and empties add nothing.
  FileGrepRequest bare;
  bare.pattern = "p";
  bare.case_insensitive = bare.multiline = false;
  bare.pattern_is_regex = false;
  bare.glob = bare.type = "";
  bare.context_before = bare.context_after = bare.head_limit = 0;
  bare.return_output_only = true;
  EXPECT_EQ(Build(bare), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "--", "p", "/proj"}));
}

TEST(GrepMaxColumns, PatternLengthPlusFiftyWithinBounds) {
  for (const auto& [length, columns] :
       {std::pair{0u, 200u}, {150u, 200u}, {151u, 201u}, {4046u, 4096u}, {100000u, 4096u}}) {
    EXPECT_EQ(GrepMaxColumns(length), columns) << length;
  }
}

}  // namespace
