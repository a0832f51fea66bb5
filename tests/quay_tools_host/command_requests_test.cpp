// Params parsing: every key type, defaults, and the library's texts in the failures.
#include "quay_tools_host/command_requests.h"

#include <gtest/gtest.h>

namespace brimo_stack::quay_tools_host {
namespace {

using nlohmann::json;

std::string Prefix(const std::string& text) { return "invalid request params: " + text; }
const std::string kTypeError = "[json.exception.type_error.302] type must be ";

// One key of one record, a JSON value for it, and the failure it must give (empty: accepted).
struct KeyCase {
  const char* name;
  json params;
  std::string failure;
};

class GrepParams : public ::testing::TestWithParam<KeyCase> {};

TEST_P(GrepParams, TypeRulesOfEveryKeyKind) {
  FileGrepRequest record;
  record.pattern = "untouched";
  const CommandResult result = ParseRequest(GetParam().params, record);
  if (GetParam().failure.empty()) {
    EXPECT_TRUE(result.ok) << result.error->message;
    return;
  }
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->category, 7);
  EXPECT_EQ(result.error->code, 1);
  EXPECT_EQ(result.error->message, Prefix(GetParam().failure));
  EXPECT_EQ(record.pattern, "untouched");
}

// Params that are an array, and a string key given a number, are refused end to end
// (e2e/host_protocol_test BadParamsGoOn, WrongParamTypeGoesOn).
INSTANTIATE_TEST_SUITE_P(
    Keys, GrepParams,
    ::testing::Values(
        KeyCase{"ParamsString", "x", "[json.exception.type_error.306] cannot use value() with string"},
        KeyCase{"ParamsNumber", 3, "[json.exception.type_error.306] cannot use value() with number"},
        KeyCase{"StringGetsNull", {{"pattern", nullptr}}, kTypeError + "string, but is null"},
        KeyCase{"OptionalStringNull", {{"path", nullptr}}, ""},
        KeyCase{"OptionalStringBool", {{"path", true}}, kTypeError + "string, but is boolean"},
        KeyCase{"BoolGetsNumber", {{"pattern_is_regex", 1}}, kTypeError + "boolean, but is number"},
        KeyCase{"BoolGetsNull", {{"pattern_is_regex", nullptr}}, kTypeError + "boolean, but is null"},
        KeyCase{"OptionalBoolNull", {{"multiline", nullptr}}, ""},
        KeyCase{"OptionalBoolString", {{"multiline", "yes"}}, kTypeError + "boolean, but is string"},
        KeyCase{"UnsignedGetsString", {{"timeout_ms", "1"}}, kTypeError + "number, but is string"},
        KeyCase{"UnsignedGetsBool", {{"timeout_ms", true}}, kTypeError + "number, but is boolean"},
        KeyCase{"UnsignedGetsNull", {{"timeout_ms", nullptr}}, kTypeError + "number, but is null"},
        KeyCase{"OptionalUnsignedNull", {{"head_limit", nullptr}}, ""},
        KeyCase{"OptionalUnsignedObject", {{"head_limit", json::object()}}, kTypeError + "number, but is object"},
        KeyCase{"EnumGetsBool", {{"environment_mode", false}}, kTypeError + "number, but is boolean"},
        KeyCase{"PolicyString", {{"policy", "x"}}, "[json.exception.type_error.306] cannot use value() with string"},
        KeyCase{"PolicyNull", {{"policy", nullptr}}, ""},
        KeyCase{"ListGetsObject", {{"policy", {{"whitelist_patterns", json::object()}}}}, kTypeError + "array, but is object"},
        KeyCase{"ListElementNumber", {{"policy", {{"whitelist_patterns", {1}}}}}, kTypeError + "string, but is number"},
        KeyCase{"FirstWrongKeyWins", {{"pattern", 1}, {"base_cwd", 2}}, kTypeError + "string, but is number"},
        KeyCase{"UnknownKeysIgnored", {{"zzz", 1}, {"policy", {{"qqq", 1}}}}, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RequestDefaults, NullAndEmptyObjectGiveDefaults) {
  for (const json& params : {json(nullptr), json::object()}) {
    FileGrepRequest grep;
    ASSERT_TRUE(ParseRequest(params, grep).ok);
    EXPECT_TRUE(grep.pattern_is_regex);
    EXPECT_EQ(grep.timeout_ms, 300000u);
    EXPECT_FALSE(grep.path.has_value());
    EXPECT_FALSE(grep.policy.case_sensitive);
    FileGlobRequest glob;
    ASSERT_TRUE(ParseRequest(params, glob).ok);
    EXPECT_EQ(glob.max_depth, 10u);
  }
}

TEST(RequestNumbers, WrapTruncateAndLowBits) {
  struct Row {
    json value;
    uint64_t as_unsigned;
    int64_t as_signed;
    uint32_t as_enum;
  };
  const Row rows[] = {
      {-1, UINT64_MAX, -1, 0xFFFFFFFFu},
      {1.9, 1, 1, 1},
      {-1.9, UINT64_MAX, -1, 0xFFFFFFFFu},
      {0x100000005ull, 0x100000005ull, 0x100000005ll, 5},
      {18446744073709551615ull, UINT64_MAX, -1, 0xFFFFFFFFu},
      {1e300, static_cast<uint64_t>(INT64_MAX), INT64_MAX, 0xFFFFFFFFu},
  };
  for (const Row& row : rows) {
    FileReadRequest read;
    ASSERT_TRUE(ParseRequest({{"offset", row.value}, {"limit", row.value}}, read).ok) << row.value;
    EXPECT_EQ(*read.offset, row.as_unsigned) << row.value;
    EXPECT_EQ(*read.limit, row.as_signed) << row.value;
    FileGlobRequest glob;
    ASSERT_TRUE(ParseRequest({{"environment_mode", row.value}}, glob).ok);
    EXPECT_EQ(glob.environment_mode, row.as_enum) << row.value;
  }
}

// The keys of file_write, file_create_temp, file_edit and file_export reach their commands in the
// end-to-end tests; the notebook's stay here too, as their end-to-end test needs nbformat.
TEST(RequestRecords, EveryRecordReadsItsKeys) {
  InternalInitializeRequest init;
  ASSERT_TRUE(ParseRequest({{"rg_executable", "/rg"}, {"sbox_log_dir", "l"}, {"sbox_dump_dir", "d"}, {"install_dir", "i"}},
                           init)
                  .ok);
  EXPECT_EQ(init.rg_executable + init.sbox_log_dir + init.sbox_dump_dir + init.install_dir, "/rgldi");

  FileReadRequest read;
  ASSERT_TRUE(ParseRequest({{"base_cwd", "/b"}, {"path", "p"}, {"start_line", 3}, {"cursor", "c"}, {"from_end", true},
                            {"max_lines", 4}, {"policy", {{"case_sensitive", true}, {"read_only_patterns", {"r"}}}}},
                           read)
                  .ok);
  EXPECT_EQ(read.base_cwd, "/b");
  EXPECT_EQ(*read.start_line, 3u);
  EXPECT_EQ(*read.cursor, "c");
  EXPECT_TRUE(read.from_end);
  EXPECT_EQ(*read.max_lines, 4);
  EXPECT_TRUE(read.policy.case_sensitive);
  EXPECT_EQ(read.policy.read_only_patterns, std::vector<std::string>{"r"});

  FileNotebookEditRequest notebook;
  ASSERT_TRUE(ParseRequest({{"cell_type", "code"}, {"edit_mode", nullptr}, {"cell_id", "x"}, {"new_source", ""}}, notebook).ok);
  EXPECT_EQ(*notebook.cell_type, "code");
  EXPECT_FALSE(notebook.edit_mode.has_value());
  EXPECT_EQ(*notebook.new_source, "");

  FileGlobRequest glob;
  ASSERT_TRUE(ParseRequest({{"type", "f"}, {"return_files_only", true}, {"result_file", "/r"}}, glob).ok);
  EXPECT_EQ(*glob.type, "f");
  EXPECT_TRUE(glob.return_files_only);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host
