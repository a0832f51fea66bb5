// The frame parser against the JSON library: the fast reader may leave a text to the library,
// but whatever it takes must come out as the library's value, types of numbers included.
#include "brimo_stack/local_runtime/ipc/json_frame_parser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace brimo_stack::local_runtime::ipc {
namespace {

using nlohmann::json;

// Equality that also tells the types of numbers apart, which the library's operator== does not.
bool SameJson(const json& a, const json& b) {
  if (a.type() != b.type() || a.size() != b.size()) return false;
  if (!a.is_structured()) return a == b;
  for (auto x = a.begin(), y = b.begin(); x != a.end(); ++x, ++y) {
    if ((a.is_object() && x.key() != y.key()) || !SameJson(*x, *y)) return false;
  }
  return true;
}

json LibraryParse(const std::string& text) { return json::parse(text, nullptr, false, false); }

// Checks one text both ways; returns whether the fast reader took it.
bool ExpectAgreement(const std::string& text) {
  const json expected = LibraryParse(text);
  json fast;
  const bool taken = ReadJsonFrameFast(text, fast);
  if (taken) {
    EXPECT_FALSE(expected.is_discarded()) << "fast reader took an invalid text: " << testing::PrintToString(text);
    EXPECT_TRUE(SameJson(fast, expected)) << testing::PrintToString(text);
  } else {
    EXPECT_TRUE(fast.is_null());
  }
  json parsed = "stale";
  EXPECT_EQ(ParseJsonFrame(text, parsed), !expected.is_discarded()) << testing::PrintToString(text);
  if (!expected.is_discarded()) {
    EXPECT_TRUE(SameJson(parsed, expected)) << testing::PrintToString(text);
  } else {
    EXPECT_TRUE(parsed.is_null());
  }
  return taken;
}

const std::vector<std::string>& RequestShapes() {
  static const std::vector<std::string> shapes = {
      R"({"method":"ping"})",
      R"(  {"method" : "file_write" , "sdk_call_id":"c-1", "params":{"path":"/a b","append":false,
           "content":"line\n\"q\"\\ \/ \b\f\r\t \u00e9 \uD83D\uDE00 \u0000 end","limit":-12,"offset":0,
           "list":[1,[],{},[[true]],null],"none":null}}  )",
      "{\"raw\":\"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \x7F\",\"k\":\"\xEF\xBF\xBF\xF4\x8F\xBF\xBF\"}",
      R"({"dup":1,"dup":"last wins","":""})",
      R"("just a string")",
      "123456789012345678",
      "-123456789012345678",
      "-0",
      "[true,false,null]",
      "\t\r\n{}\r\n",
  };
  return shapes;
}

TEST(JsonFrameParser, FastReaderTakesRequestShapesAsTheLibraryReadsThem) {
  for (const std::string& text : RequestShapes()) {
    EXPECT_TRUE(ExpectAgreement(text)) << "left to the library: " << text;
  }
}

TEST(JsonFrameParser, UnusualValidTextsGoToTheLibrary) {
  const std::string deep = std::string(300, '[') + std::string(300, ']');
  for (const std::string& text : {std::string("1.5"), std::string("[1e3,2E-1]"), std::string("12345678901234567890"),
                                  std::string("-9223372036854775809"), std::string("\xEF\xBB\xBF{}"), deep}) {
    EXPECT_FALSE(ExpectAgreement(text)) << text;
  }
}

TEST(JsonFrameParser, InvalidTextsAreRefused) {
  const std::vector<std::string> invalid = {
      "", " ", "{", "}", "{\"a\":1,}", "[1,]", "[1 2]", "{\"a\" 1}", "{'a':1}", "01", "-", "+1", "1.", ".5", "tru",
      "nul", "nan", "{} x", "// c\n{}", "/* c */ {}", "\"unterminated", "\"\\x\"", "\"\\u12G4\"", "\"\\ud800\"",
      "\"\\udc00\"", "\"\\ud800\\u0041\"", "\"\\ud800x\"", std::string("\"a\x01\""), std::string("\"a\0b\"", 5),
      "\"\xC0\x80\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"", "\"\xE2\x82\"", "\"\x80\"", "\"\xFF\"",
      "{\"a\":\"\xE2\x82\"}", "[\"ok\",\"\xC3\"]", "\xEF\xBB{}"};
  for (const std::string& text : invalid) {
    ASSERT_TRUE(LibraryParse(text).is_discarded()) << "table row is valid JSON: " << testing::PrintToString(text);
    ExpectAgreement(text);
  }
}

// The whole line is the text: the library stops at a NUL byte, the frame does not.
TEST(JsonFrameParser, OnlyWhiteSpaceMayFollowTheValue) {
  using namespace std::string_literals;
  const struct {
    std::string text;
    bool valid;
  } rows[] = {
      {"{\"method\":\"ping\"} \t\r\n \r"s, true},
      {"1.5\t "s, true},
      {"{\"method\":\"ping\"}\0"s, false},
      {"{\"method\":\"ping\"}\0garbage"s, false},
      {"{\"method\":\"ping\"} \0 "s, false},
      {"1.5\0"s, false},
      {"[1e3]\0{\"method\":\"shutdown\"}"s, false},
      {"\0{}"s, false},
      {"{} {}"s, false},
      {"1.5 2"s, false},
  };
  for (const auto& row : rows) {
    json value = "stale";
    EXPECT_EQ(ParseJsonFrame(row.text, value), row.valid) << testing::PrintToString(row.text);
    EXPECT_EQ(value.is_null(), !row.valid) << testing::PrintToString(row.text);
  }
}

// Random edits of request shapes, with bytes that matter to the grammar, strings and UTF-8.
TEST(JsonFrameParser, MutatedTextsNeverMakeTheTwoDisagree) {
  const std::string alphabet = std::string("\"\\{}[],:-0129.eEu tnfa/") + "\x01\x7F\x80\xBF\xC2\xE0\xED\xF0\xF4\xFF";
  std::mt19937 random(1123);
  int taken = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = RequestShapes()[random() % RequestShapes().size()];
    for (int edits = 1 + static_cast<int>(random() % 3); edits > 0 && !text.empty(); --edits) {
      const size_t at = random() % text.size();
      const char byte = alphabet[random() % alphabet.size()];
      switch (random() % 3) {
        case 0: text[at] = byte; break;
        case 1: text.insert(at, 1, byte); break;
        default: text.erase(at, 1); break;
      }
    }
    taken += ExpectAgreement(text) ? 1 : 0;
    if (HasFailure()) {
      FAIL() << "round " << round;
    }
  }
  EXPECT_GT(taken, 1000) << "the fast reader should still take many edited texts";
}

// A content string that fills a frame: escapes every line and non-ASCII text, so the string is
// measured and grown in one step.
TEST(JsonFrameParser, LongContentStringComesOutWhole) {
  std::string content;
  while (content.size() < (size_t{1} << 20)) {
    content += "int value = compute(\"arg\", 'c');\t// \xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80\n";
  }
  const std::string text = json{{"method", "file_write"}, {"params", {{"content", content}}}}.dump();
  json value;
  ASSERT_TRUE(ReadJsonFrameFast(text, value));
  EXPECT_EQ(value["params"]["content"].get_ref<const std::string&>(), content);
  EXPECT_TRUE(SameJson(value, LibraryParse(text)));
}

}  // namespace
}  // namespace brimo_stack::local_runtime::ipc
