// The export destination by text: containment in the root and file URLs.
#include <gtest/gtest.h>

#include <string>

#include "quay_tools_host/writes/export_target.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::quay_tools_host::internal::IsPathInsideRoot;
using brimo_stack::quay_tools_host::internal::MakeFileUrl;

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

// A sibling that starts with the root's name, a root in other letter case and a space or UTF-8
// in a URL are answered end to end (e2e/file_export_test); containment by text is path_text's.
INSTANTIATE_TEST_SUITE_P(Cases, PathInsideRoot,
                         testing::Values(InsideCase{"/tmp/qz/to", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/a/b.txt", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/", "/tmp/qz/to", true},
                                         InsideCase{"/tmp/qz/to/a", "/tmp/qz/to//", true},
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
    testing::Values(UrlCase{"/x/Az09-._~:y", "file:///x/Az09-._~:y"},
                    UrlCase{"/x/\xff\x01", "file:///x/%FF%01"},
                    UrlCase{"/x/a\\b", "file:///x/a%5Cb"},
                    UrlCase{"/x/100%#?&+=@", "file:///x/100%25%23%3F%26%2B%3D%40"},
                    UrlCase{"/x/./y/../z", "file:///x/z"}));

TEST(FileUrl, RelativePathIsMadeAbsoluteFirst) {
  EXPECT_EQ(MakeFileUrl("rel dir/f"), "file://" + fs::current_path().native() + "/rel%20dir/f");
}

}  // namespace
