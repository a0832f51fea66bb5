// Strict base64, row by row and over every byte value.
#include "brimo_stack_common/base64.h"

#include <gtest/gtest.h>

namespace brimo_stack {
namespace {

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
      // The pad bits behind the last whole byte are zero: each byte string has one text.
      {"/w==", true, "\xFF"},
      {"//8=", true, "\xFF\xFF"},
      {"QR==", false, ""},
      {"Q/==", false, ""},
      {"QUJ=", false, ""},
      {"//9=", false, ""},
      {"QUJDRB==", false, ""},
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
