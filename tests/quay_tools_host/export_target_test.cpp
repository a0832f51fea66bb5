// The export destination by text: containment in the root, file URLs, lexical refusals.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "quay_tools_host/export_target.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::CommandResult;
using brimo_stack::quay_tools_host::internal::IsPathInsideRoot;
using brimo_stack::quay_tools_host::internal::MakeFileUrl;
using brimo_stack::quay_tools_host::internal::ResolveExportTarget;

struct InsideCase {
  const char* path;
  const char* root;
  bool inside;
};

class PathInsideRoot : public testing::TestWithParam<InsideCase> {};

TEST_P(PathInsideRoot, ComparesWholeComponentsAndCase) {
  EXPECT_EQ(IsPathInsideRoot(GetParam().path, GetParam().root), GetParam().inside)
      << GetParam().path << " in " << GetParam().root;
}

INSTANTIATE_TEST_SUITE_P(Cases, PathInsideRoot,
                         testing::Values(InsideCase{"/tmp/qz/to", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/a/b.txt", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/a", "/tmp/qz/to//", true},
                                         InsideCase{"/tmp/qz/tool", "/tmp/qz/to", false},
                                         InsideCase{"/tmp/qz/to.txt", "/tmp/qz/to", false},
                                         InsideCase{"/tmp/qz", "/tmp/qz/to", false},
                                         InsideCase{"/tmp/QZ/to", "/tmp/qz/to", false},
                                         InsideCase{"/tmp/qz/TO/a", "/tmp/qz/to", false},
                                         InsideCase{"", "/tmp/qz/to", false},
                                         InsideCase{"/tmp/qz/to", "", false}));

struct UrlCase {
  const char* path;
  const char* url;
};

class FileUrl : public testing::TestWithParam<UrlCase> {};

TEST_P(FileUrl, PercentEncodesByteByByte) { EXPECT_EQ(MakeFileUrl(GetParam().path), GetParam().url); }

INSTANTIATE_TEST_SUITE_P(
    Cases, FileUrl,
    testing::Values(UrlCase{"/tmp/qz/to/a b.txt", "file:///tmp/qz/to/a%20b.txt"},
                    UrlCase{"/x/Az09-._~:y", "file:///x/Az09-._~:y"},
                    UrlCase{"/x/\xc3\xa9t\xc3\xa9.txt", "file:///x/%C3%A9t%C3%A9.txt"},
                    UrlCase{"/x/\xff\x01", "file:///x/%FF%01"},
                    UrlCase{"/x/a\\b", "file:///x/a%5Cb"},
                    UrlCase{"/x/100%#?&+=@", "file:///x/100%25%23%3F%26%2B%3D%40"},
                    UrlCase{"/x/./y/../z", "file:///x/z"}));

TEST(FileUrl, RelativePathIsMadeAbsoluteFirst) {
  EXPECT_EQ(MakeFileUrl("rel dir/f"), "file://" + fs::current_path().native() + "/rel%20dir/f");
}

// Refusals decided by text alone: each leaves the disk as it was.
struct LexicalCase {
  const char* export_path;  // "@" stands for the tool outputs root
  int category;
  int code;
  const char* message;  // "@" likewise; "#" for the normalised target
};

class ExportTargetByText : public testing::TestWithParam<LexicalCase> {
 protected:
  void SetUp() override {
    if (const char* old = std::getenv("TMPDIR")) {
      saved_tmpdir_ = old;
    }
    ::setenv("TMPDIR", temp_.path().c_str(), /*overwrite=*/1);
    root_ = (temp_.path() / "qz" / "to").native();
  }
  void TearDown() override {
    if (saved_tmpdir_.empty()) {
      ::unsetenv("TMPDIR");
    } else {
      ::setenv("TMPDIR", saved_tmpdir_.c_str(), /*overwrite=*/1);
    }
  }
  std::string Expand(std::string text) const {
    for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + root_.size())) {
      text.replace(at, 1, root_);
    }
    return text;
  }

  quay_test::TempDir temp_;
  std::string root_;
  std::string saved_tmpdir_;
};

TEST_P(ExportTargetByText, IsRefusedBeforeTouchingTheDisk) {
  const LexicalCase& c = GetParam();
  const std::string export_path = Expand(c.export_path);
  fs::path target;
  fs::path directory;
  const CommandResult result = ResolveExportTarget(export_path, "", target, directory);
  ASSERT_FALSE(result.ok) << export_path;
  EXPECT_EQ(result.error->category, c.category);
  EXPECT_EQ(result.error->code, c.code);
  std::string expected = Expand(c.message);
  if (const size_t at = expected.find('#'); at != std::string::npos) {
    expected.replace(at, 1, fs::path(export_path).lexically_normal().native());
  }
  EXPECT_EQ(result.error->message, expected);
  EXPECT_FALSE(fs::exists(temp_.path() / "qz")) << "created below the temp root";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ExportTargetByText,
    testing::Values(
        LexicalCase{"", 7, 1, "INVALID_EXPORT_PATH: export_path is empty"},
        LexicalCase{"relative/a.txt", 7, 1, "INVALID_EXPORT_PATH: export_path must be an absolute path"},
        LexicalCase{"@/../escaped.txt", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: #"},
        LexicalCase{"@/a/../../../qz/escaped.txt", 7, 1,
                    "INVALID_EXPORT_PATH: export_path is outside trusted export root: #"},
        LexicalCase{"@", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: @"},
        LexicalCase{"@/", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: @"},
        LexicalCase{"@/.", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: @"},
        LexicalCase{"@x/a.txt", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: @x/a.txt"},
        LexicalCase{"/", 7, 1, "INVALID_EXPORT_PATH: export_path is outside trusted export root: /"}));

TEST_F(ExportTargetByText, DifferentLetterCaseIsOutside) {
  std::string upper = root_;
  upper.replace(upper.size() - 5, 2, "QZ");  // ".../qz/to" to ".../QZ/to"
  fs::path target;
  fs::path directory;
  const CommandResult result = ResolveExportTarget(upper + "/a.txt", "", target, directory);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message,
            "INVALID_EXPORT_PATH: export_path is outside trusted export root: " + upper + "/a.txt");
  EXPECT_FALSE(fs::exists(temp_.path() / "QZ"));
}

TEST_F(ExportTargetByText, NulByteIsRefused) {
  // The system would see only "<root>/a" and act on a path other than the one checked.
  const std::string export_path = root_ + std::string("/a\0/../../../b", 14);
  fs::path target;
  fs::path directory;
  const CommandResult result = ResolveExportTarget(export_path, "", target, directory);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message, "INVALID_EXPORT_PATH: export_path contains a NUL character");
}

TEST_F(ExportTargetByText, BrokenTempRootIsPassedOn) {
  ::setenv("TMPDIR", (temp_.path() / "missing").c_str(), /*overwrite=*/1);
  fs::path target;
  fs::path directory;
  const CommandResult result = ResolveExportTarget(root_ + "/a.txt", "", target, directory);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->category, 6);
  EXPECT_EQ(result.error->message, "validate system temporary directory failed: No such file or directory");
}

}  // namespace
