// Notebook edits on JSON values: every refusal of the request and every shape of a change.
#include "quay_tools_host/edits/notebook_cells.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using brimo_stack::quay_tools_host::FileNotebookEditRequest;
using namespace brimo_stack::quay_tools_host::internal;
using nlohmann::json;

constexpr const char* kTwoCells =
    R"({"cells":[{"cell_type":"code","id":"c1","metadata":{},"source":["x = 1\n","y = 2"],"outputs":[{"output_type":"stream","name":"stdout","text":"1"}],"execution_count":3},
                 {"cell_type":"markdown","id":"m1","metadata":{},"source":"# T"}],"metadata":{},"nbformat":4,"nbformat_minor":5})";

FileNotebookEditRequest Request(std::optional<std::string> mode, std::optional<std::string> cell_id,
                                std::optional<std::string> source, std::optional<std::string> type = std::nullopt) {
  FileNotebookEditRequest request;
  request.edit_mode = std::move(mode);
  request.cell_id = std::move(cell_id);
  request.new_source = std::move(source);
  request.cell_type = std::move(type);
  return request;
}

struct RefusalCase {
  const char* name;
  std::string text;
  FileNotebookEditRequest request;
  std::string message;
  int32_t code;
};

class NotebookRefusalTest : public testing::TestWithParam<RefusalCase> {};

TEST_P(NotebookRefusalTest, Table) {
  NotebookEditOutcome outcome;
  const auto result = EditNotebookText(GetParam().text, GetParam().request, outcome);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message, GetParam().message);
  EXPECT_EQ(result.error->category, 7);
  EXPECT_EQ(result.error->code, GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Table, NotebookRefusalTest,
    testing::Values(
        RefusalCase{"array_root", "[]", Request("bogus", {}, {}), "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON", 1},
        RefusalCase{"trailing_comma", R"({"cells":[],})", Request({}, "a", "s"),
                    "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON", 1},
        RefusalCase{"comment", "{/* c */\"cells\":[]}", Request({}, "a", "s"),
                    "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON", 1},
        // The parser would stop at the NUL, and the rewrite would drop what follows it.
        RefusalCase{"bytes_after_nul", std::string(kTwoCells) + std::string("\0tail", 5), Request({}, "c1", "s"),
                    "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON", 1},
        RefusalCase{"no_cells", "{}", Request("bogus", {}, {}),
                    "INVALID_NOTEBOOK_CELLS: notebook file must contain a cells array", 1},
        RefusalCase{"cells_object", R"({"cells":{}})", Request({}, "a", "s"),
                    "INVALID_NOTEBOOK_CELLS: notebook file must contain a cells array", 1},
        RefusalCase{"bad_mode", kTwoCells, Request("append", "c1", "s", "raw"),
                    "INVALID_EDIT_MODE: edit_mode must be replace, insert, or delete", 1},
        RefusalCase{"bad_type_on_delete", kTwoCells, Request("delete", "c1", {}, "raw"),
                    "INVALID_CELL_TYPE: cell_type must be code or markdown", 1},
        RefusalCase{"replace_without_id", kTwoCells, Request({}, "", "s"),
                    "INVALID_CELL_ID: cell_id is required for replace/delete", 1},
        RefusalCase{"delete_without_id", kTwoCells, Request("delete", {}, {}),
                    "INVALID_CELL_ID: cell_id is required for replace/delete", 1},
        RefusalCase{"insert_without_source", kTwoCells, Request("insert", {}, {}),
                    "INVALID_NEW_SOURCE: new_source is required for replace/insert", 1},
        RefusalCase{"source_too_large_on_delete", kTwoCells,
                    Request("delete", "c1", std::string(16777217, 'x')),
                    "FILE_TOO_LARGE: notebook cell source exceeds 16777216 bytes", 1},
        RefusalCase{"unknown_id", kTwoCells, Request({}, "zz", "s"), "CELL_ID_NOT_FOUND: cell_id not found", 1005},
        RefusalCase{"insert_after_unknown", kTwoCells, Request("insert", "zz", "s"),
                    "CELL_ID_NOT_FOUND: cell_id not found", 1005},
        RefusalCase{"index_out_of_range", kTwoCells, Request("delete", "2", {}), "CELL_ID_NOT_FOUND: cell_id not found",
                    1005},
        RefusalCase{"index_beyond_64_bits", kTwoCells, Request("delete", "99999999999999999999", {}),
                    "CELL_ID_NOT_FOUND: cell_id not found", 1005},
        RefusalCase{"cell_not_object", R"({"cells":[1]})", Request({}, "0", "s"),
                    "INVALID_NOTEBOOK_CELL: target cell is not an object", 1},
        RefusalCase{"result_too_large", R"({"cells":[]})", Request("insert", {}, std::string(16777216, 'x')),
                    "FILE_TOO_LARGE: edited notebook exceeds 16777216 bytes", 0}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

json Edit(std::string_view text, const FileNotebookEditRequest& request, NotebookEditOutcome* out = nullptr) {
  NotebookEditOutcome outcome;
  const auto result = EditNotebookText(text, request, outcome);
  EXPECT_TRUE(result.ok) << result.error->message;
  if (out != nullptr) {
    *out = outcome;
  }
  return json::parse(outcome.serialized);
}

TEST(EditNotebookText, ReplaceKeepsTheSourceShape) {
  json doc = Edit(kTwoCells, Request({}, "c1", "a\nb\n"));
  EXPECT_EQ(doc["cells"][0]["source"], json::array({"a\n", "b\n"}));
  EXPECT_EQ(doc["cells"][0]["outputs"].size(), 1u);
  EXPECT_EQ(doc["cells"][0]["id"], "c1");
  doc = Edit(kTwoCells, Request({}, "m1", "a\nb\n"));
  EXPECT_EQ(doc["cells"][1]["source"], "a\nb\n");
  doc = Edit(kTwoCells, Request({}, "c1", ""));
  EXPECT_EQ(doc["cells"][0]["source"], json::array({""}));
}

TEST(EditNotebookText, TypeChangesAddAndRemoveCodeKeys) {
  json doc = Edit(kTwoCells, Request({}, "c1", "t", "markdown"));
  EXPECT_FALSE(doc["cells"][0].contains("outputs"));
  EXPECT_FALSE(doc["cells"][0].contains("execution_count"));
  doc = Edit(kTwoCells, Request({}, "m1", "t", "code"));
  EXPECT_EQ(doc["cells"][1]["outputs"], json::array());
  EXPECT_TRUE(doc["cells"][1]["execution_count"].is_null());
  doc = Edit(kTwoCells, Request({}, "c1", "t", "code"));
  EXPECT_EQ(doc["cells"][0]["execution_count"], 3);
  EXPECT_EQ(doc["cells"][0]["outputs"].size(), 1u);
}

TEST(EditNotebookText, InsertPlacesANewCellBehindTheNamedOne) {
  NotebookEditOutcome outcome;
  json doc = Edit(kTwoCells, Request("insert", "c1", "new", "markdown"), &outcome);
  EXPECT_EQ(outcome.cell_count, 3u);
  ASSERT_TRUE(outcome.inserted_cell_id.has_value());
  EXPECT_TRUE(outcome.inserted_cell_id->starts_with("brimo-stack-"));
  EXPECT_EQ(doc["cells"][1], (json{{"cell_type", "markdown"}, {"id", *outcome.inserted_cell_id},
                                   {"metadata", json::object()}, {"source", "new"}}));
  doc = Edit(R"({"cells":[]})", Request("insert", {}, ""), &outcome);
  EXPECT_EQ(outcome.cell_count, 1u);
  EXPECT_EQ(doc["cells"][0]["outputs"], json::array());
  EXPECT_TRUE(doc["cells"][0]["execution_count"].is_null());
}

TEST(EditNotebookText, DeleteAndSerialisedForm) {
  NotebookEditOutcome outcome;
  const std::string with_bom = std::string("\xEF\xBB\xBF") + R"({"z":"é","cells":[{"id":"a","source":"s"}]})";
  Edit(with_bom, Request("delete", "a", {}), &outcome);
  EXPECT_EQ(outcome.cell_count, 0u);
  EXPECT_EQ(outcome.serialized, "{\n  \"cells\": [],\n  \"z\": \"é\"\n}");
}

// `inner` inside `levels` arrays.
std::string Nest(int levels, std::string_view inner = "1") {
  std::string text(static_cast<size_t>(levels), '[');
  text += inner;
  text.append(static_cast<size_t>(levels), ']');
  return text;
}

TEST(EditNotebookText, NestingLimitCountsContainersOutsideStrings) {
  std::string brackets_in_string = "\"";
  brackets_in_string.append(600, '[').append("\\\"").append(600, '{') += '"';
  const struct {
    const char* name;
    std::string text;
    bool accepted;
  } rows[] = {
      {"512 levels", R"({"cells":[],"m":)" + Nest(511) + "}", true},
      {"513 levels", R"({"cells":[],"m":)" + Nest(512) + "}", false},
      {"513 levels of objects", R"({"cells":[],"m":)" + Nest(510, R"({"a":{}})") + "}", false},
      {"brackets and an escaped quote in a string", R"({"cells":[],"s":)" + brackets_in_string + R"(,"m":)" + Nest(511) + "}",
       true},
      {"escaped backslash ends the string", R"({"cells":[],"s":"\\","m":)" + Nest(512) + "}", false},
  };
  for (const auto& row : rows) {
    NotebookEditOutcome outcome;
    const auto result = EditNotebookText(row.text, Request("insert", {}, "x"), outcome);
    EXPECT_EQ(result.ok, row.accepted) << row.name;
    if (!row.accepted && !result.ok) {
      EXPECT_EQ(result.error->message, "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON") << row.name;
      EXPECT_EQ(result.error->code, 1) << row.name;
    }
  }
}

TEST(FindNotebookCell, IdsWinOverIndexesAndOddIdsAreSkipped) {
  const json cells = json::parse(R"([{"id":"x"},{"id":"0"},7,{"source":""},{"id":5}])");
  EXPECT_EQ(FindNotebookCell(cells, "0"), 1u);
  EXPECT_EQ(FindNotebookCell(cells, "x"), 0u);
  EXPECT_EQ(FindNotebookCell(cells, "4"), 4u);
  EXPECT_EQ(FindNotebookCell(cells, "5"), std::nullopt);
  EXPECT_EQ(FindNotebookCell(cells, "-1"), std::nullopt);
  EXPECT_EQ(FindNotebookCell(json::parse(R"([{"id":"a"}])"), "0"), 0u);
}

TEST(SplitNotebookSource, CutsBehindLineFeeds) {
  EXPECT_EQ(SplitNotebookSource(""), std::vector<std::string>{""});
  EXPECT_EQ(SplitNotebookSource("a\nb"), (std::vector<std::string>{"a\n", "b"}));
  EXPECT_EQ(SplitNotebookSource("a\r\nb\n"), (std::vector<std::string>{"a\r\n", "b\n"}));
  EXPECT_EQ(SplitNotebookSource("\n\n"), (std::vector<std::string>{"\n", "\n"}));
}

TEST(ApplyNotebookCellType, ReplacesOutputsThatAreNotAnArray) {
  json cell = json::parse(R"({"cell_type":"markdown","outputs":"junk"})");
  ApplyNotebookCellType(cell, "code");
  EXPECT_EQ(cell["outputs"], json::array());
}

}  // namespace
