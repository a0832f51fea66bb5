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
  EXPECT_EQ(Build({.pattern = "-e"}), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "-M", "200",
                                                 "--max-columns-preview", "--", "-e", "/proj"}));

  const FileGrepRequest full{.pattern = "--pre=x", .case_insensitive = true, .multiline = true,
                             .pattern_is_regex = false, .glob = "--pre=y", .type = "-z", .context_before = 2,
                             .context_after = 3, .head_limit = 4};
  EXPECT_EQ(Build(full), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "-M", "200",
                                    "--max-columns-preview", "-i", "-F", "-U", "--multiline-dotall", "--glob=--pre=y",
                                    "--type=-z", "-B", "2", "-A", "3", "--max-count", "4", "--", "--pre=x", "/proj"}));

  // Output only: a regular expression always, and no cut of long lines; zeros and empties add nothing.
  const FileGrepRequest bare{.pattern = "p", .case_insensitive = false, .multiline = false,
                             .pattern_is_regex = false, .glob = "", .type = "", .context_before = 0,
                             .context_after = 0, .head_limit = 0, .return_output_only = true};
  EXPECT_EQ(Build(bare), (Arguments{"--no-config", "--no-follow", "-n", "--color", "never", "--", "p", "/proj"}));
}

TEST(GrepMaxColumns, PatternLengthPlusFiftyWithinBounds) {
  for (const auto [length, columns] :
       {std::pair{0u, 200u}, {150u, 200u}, {151u, 201u}, {4046u, 4096u}, {100000u, 4096u}}) {
    EXPECT_EQ(GrepMaxColumns(length), columns) << length;
  }
}

}  // namespace
