// ASCII-only case folding.
#include "brimo_stack_common/ascii_text.h"

#include <gtest/gtest.h>

namespace brimo_stack {
namespace {

TEST(ToLowerAscii, OnlyAsciiLetters) {
  EXPECT_EQ(ToLowerAscii("AbZ@[`\xC3\x89\xFF"), "abz@[`\xC3\x89\xFF");
}

}  // namespace
}  // namespace brimo_stack
