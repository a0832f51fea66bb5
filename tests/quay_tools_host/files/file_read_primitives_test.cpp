// The read-side primitives on real files: the whole-file load of the edit commands.
#include <gtest/gtest.h>

#include "brimo_stack_common/utf8.h"
#include "quay_tools_host/files/file_read_primitives.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

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

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
