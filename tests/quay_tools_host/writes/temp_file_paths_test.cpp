// The sub_path rules and the free-name search of file_create_temp.
#include "quay_tools_host/writes/temp_file_paths.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::quay_tools_host::internal::AllocateUniqueTempPath;
using brimo_stack::quay_tools_host::internal::ValidateTempSubPath;

struct SubPathCase {
  const char* sub_path;
  const char* message;  // nullptr: accepted
};

class ValidateTempSubPathTest : public testing::TestWithParam<SubPathCase> {};

TEST_P(ValidateTempSubPathTest, GivesTheFirstRuleThatFails) {
  const auto result = ValidateTempSubPath(GetParam().sub_path);
  if (GetParam().message == nullptr) {
    EXPECT_FALSE(result.has_value()) << *result;
  } else {
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(*result, GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ValidateTempSubPathTest,
    testing::Values(SubPathCase{"", "sub_path is empty"},
                    SubPathCase{"dir/", "sub_path must include a file name"},
                    SubPathCase{"..\\x/", "sub_path must include a file name"},
                    SubPathCase{"a\\b", "sub_path must use '/' separators"},
                    SubPathCase{"/abs", "sub_path contains an invalid path segment"},
                    SubPathCase{"a//b", "sub_path contains an invalid path segment"},
                    SubPathCase{"./a", "sub_path contains an invalid path segment"},
                    SubPathCase{"..", "sub_path contains an invalid path segment"},
                    SubPathCase{"a.txt", nullptr}, SubPathCase{"d/e/f.bin", nullptr},
                    SubPathCase{"...", nullptr}, SubPathCase{".env", nullptr},
                    SubPathCase{"x/y (1).tar.gz", nullptr}));

// The next free number of a plain name is answered end to end (e2e/file_write_test).
TEST(AllocateUniqueTempPath, NumbersBeforeTheExtension) {
  quay_test::TempDir dir;
  fs::path final_path;
  dir.WriteFile("a.tar.gz", "");
  ASSERT_TRUE(AllocateUniqueTempPath(dir.path() / "a.tar.gz", final_path).ok);
  EXPECT_EQ(final_path, dir.path() / "a.tar (1).gz");

  dir.WriteFile(".env", "");
  ASSERT_TRUE(AllocateUniqueTempPath(dir.path() / ".env", final_path).ok);
  EXPECT_EQ(final_path, dir.path() / ".env (1)");

  ASSERT_TRUE(AllocateUniqueTempPath(dir.path() / "fresh.bin", final_path).ok);
  EXPECT_EQ(final_path, dir.path() / "fresh.bin");

  // A dangling link takes its name like any file.
  fs::create_symlink(dir.path() / "nowhere", dir.path() / "b.txt");
  ASSERT_TRUE(AllocateUniqueTempPath(dir.path() / "b.txt", final_path).ok);
  EXPECT_EQ(final_path, dir.path() / "b (1).txt");
}

TEST(AllocateUniqueTempPath, GivesUpAfterTenThousandNames) {
  quay_test::TempDir dir;
  dir.WriteFile("n", "");
  for (int n = 1; n <= 9999; ++n) {
    dir.WriteFile("n (" + std::to_string(n) + ")", "");
  }
  fs::path final_path;
  const auto result = AllocateUniqueTempPath(dir.path() / "n", final_path);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message, "failed to allocate a unique temp file path");
  EXPECT_EQ(result.error->category, 7);
}

}  // namespace
