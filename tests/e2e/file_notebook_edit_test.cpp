// file_notebook_edit through the built host on real notebooks, each result proved by nbformat.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "support/host_command_fixture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::ReadWholeFile;

constexpr const char* kSystemPython = "/usr/bin/python3";

bool HaveValidator() {
  return std::system((std::string(kSystemPython) + " -c 'import nbformat' 2>/dev/null").c_str()) == 0;
}

// Exit status 0 when the system's nbformat reads every file and finds each valid; one
// interpreter for all, since its start is the slow part.
int ValidateNotebooks(const std::vector<fs::path>& paths) {
  std::string command = std::string(kSystemPython) +
                        " -c 'import sys, nbformat\nfor p in sys.argv[1:]: nbformat.validate(nbformat.read(p, as_version=4))'";
  for (const fs::path& path : paths) {
    command += " '" + path.string() + "'";
  }
  return std::system((command + " 2>&1").c_str());
}

class FileNotebookEditE2eTest : public quay_test::HostCommandTest {
 protected:
  void SetUp() override {
    if (!HaveValidator()) {
      GTEST_SKIP() << "python3-nbformat is not installed";
    }
    fs::copy_file(fs::path(QUAY_SOURCE_DIR) / "tests/data/notebooks/analysis.ipynb", path_);
  }
  json Edit(json params) {
    params["path"] = path_.string();
    const json data = Data("file_notebook_edit", std::move(params));
    // Each result is kept and proved at the end of the test.
    results_.push_back(root_ / ("after_" + std::to_string(results_.size()) + ".ipynb"));
    fs::copy_file(path_, results_.back());
    return data;
  }
  json Cells() { return json::parse(ReadWholeFile(path_))["cells"]; }
  void TearDown() override {
    if (!results_.empty()) {
      EXPECT_EQ(ValidateNotebooks(results_), 0);
    }
  }

  std::vector<fs::path> results_;
  fs::path path_ = root_ / "nb.ipynb";
};

TEST_F(FileNotebookEditE2eTest, EveryModeLeavesAValidNotebook) {
  ASSERT_EQ(ValidateNotebooks({path_}), 0);
  const json inserted = Edit({{"edit_mode", "insert"}, {"cell_id", "intro"}, {"new_source", "print('hi')\n"}});
  EXPECT_EQ(inserted["cell_count"], 4);
  EXPECT_EQ(Cells()[1]["id"], inserted["cell_id"]);

  EXPECT_EQ(Edit({{"cell_id", "load"}, {"new_source", "a\nb\n"}}), json({{"cell_count", 4}}));
  EXPECT_EQ(Cells()[2]["source"], json::array({"a\n", "b\n"}));

  Edit({{"cell_id", "load"}, {"new_source", "## now text"}, {"cell_type", "markdown"}});
  EXPECT_FALSE(Cells()[2].contains("outputs"));
  Edit({{"cell_id", "intro"}, {"new_source", "x = 1"}, {"cell_type", "code"}});
  EXPECT_EQ(Cells()[0]["outputs"], json::array());

  Edit({{"edit_mode", "insert"}, {"new_source", "# end"}, {"cell_type", "markdown"}});
  for (int left = 5; left > 0; --left) {
    EXPECT_EQ(Edit({{"edit_mode", "delete"}, {"cell_id", "0"}}), json({{"cell_count", left - 1}}));
  }
  EXPECT_EQ(Cells(), json::array());
}

TEST_F(FileNotebookEditE2eTest, ByteOrderMarkGoesAndContentStays) {
  const std::string original = ReadWholeFile(path_);
  dir_.WriteFile("nb.ipynb", "\xEF\xBB\xBF" + original);
  Edit({{"cell_id", "plot"}, {"new_source", "plot(ü)"}});
  const std::string written = ReadWholeFile(path_);
  EXPECT_FALSE(written.starts_with("\xEF\xBB\xBF"));
  EXPECT_NE(written.find("plot(ü)"), std::string::npos);
  EXPECT_NE(written.back(), '\n');
  json before = json::parse(original);
  before["cells"][2]["source"] = json::array({"plot(ü)"});
  EXPECT_EQ(json::parse(written), before);
}

TEST_F(FileNotebookEditE2eTest, RefusalsLeaveTheFileAlone) {
  const std::string original = ReadWholeFile(path_);
  const struct {
    json params;
    int code;
    std::string message;
  } rows[] = {
      {{{"edit_mode", "move"}, {"cell_id", "load"}}, 1, "INVALID_EDIT_MODE: edit_mode must be replace, insert, or delete"},
      {{{"cell_id", "load"}, {"cell_type", "raw"}, {"new_source", ""}}, 1, "INVALID_CELL_TYPE: cell_type must be code or markdown"},
      {{{"new_source", "x"}}, 1, "INVALID_CELL_ID: cell_id is required for replace/delete"},
      {{{"cell_id", "load"}}, 1, "INVALID_NEW_SOURCE: new_source is required for replace/insert"},
      {{{"cell_id", "nope"}, {"new_source", "x"}}, 1005, "CELL_ID_NOT_FOUND: cell_id not found"},
  };
  for (const auto& row : rows) {
    json params = row.params;
    params["path"] = path_.string();
    EXPECT_EQ(Refusal("file_notebook_edit", params, 7, row.code), row.message);
  }
  dir_.WriteFile("list.ipynb", "[]");
  EXPECT_EQ(Refusal("file_notebook_edit", {{"path", P("list.ipynb")}, {"cell_id", "a"}, {"new_source", ""}}, 7, 1),
            "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON");
  EXPECT_EQ(ReadWholeFile(path_), original);
}

TEST_F(FileNotebookEditE2eTest, DeeplyNestedNotebookIsRefusedAndTheHostGoesOn) {
  const int levels = 80000;
  const std::string deep = R"({"cells":[{"cell_type":"code","id":"c","metadata":)" + std::string(levels, '[') +
                           std::string(levels, ']') + R"(,"source":"","outputs":[],"execution_count":null}]})";
  dir_.WriteFile("deep.ipynb", deep);
  EXPECT_EQ(Refusal("file_notebook_edit", {{"path", P("deep.ipynb")}, {"cell_id", "c"}, {"new_source", "x"}}, 7, 1),
            "INVALID_NOTEBOOK_JSON: failed to parse notebook JSON");
  EXPECT_EQ(host_.Call({{"method", "ping"}}), json({{"ok", true}}));
  EXPECT_EQ(ReadWholeFile(P("deep.ipynb")), deep);
}

}  // namespace
