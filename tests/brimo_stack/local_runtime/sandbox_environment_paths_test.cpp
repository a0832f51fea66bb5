// The runtime roots: the profile case, the system temp root and their refusals.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "brimo_stack/local_runtime/sandbox_environment_paths.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::CommandResult;
namespace rt = brimo_stack::local_runtime;

// Sets TMPDIR, or unsets it for nullopt, until the end of the scope.
class ScopedTmpdir {
 public:
  explicit ScopedTmpdir(const std::optional<std::string>& value) {
    if (const char* old = std::getenv("TMPDIR")) saved_ = old;
    Apply(value);
  }
  ~ScopedTmpdir() { Apply(saved_); }
  ScopedTmpdir(const ScopedTmpdir&) = delete;
  ScopedTmpdir& operator=(const ScopedTmpdir&) = delete;

 private:
  static void Apply(const std::optional<std::string>& value) {
    value.has_value() ? ::setenv("TMPDIR", value->c_str(), /*overwrite=*/1) : ::unsetenv("TMPDIR");
  }
  std::optional<std::string> saved_;
};

struct ProfileCase {
  const char* install_dir;
  const char* expected_root;  // nullptr: the refusal below
  const char* expected_error;
};

class ProfileInstallDir : public testing::TestWithParam<ProfileCase> {};

TEST_P(ProfileInstallDir, GivesRootBesideItOrRefuses) {
  // A broken temp root proves that the profile case never consults it.
  ScopedTmpdir tmpdir(std::string("/nonexistent-quay-tmp"));
  const ProfileCase& c = GetParam();
  fs::path root("stale");
  const CommandResult result = rt::ResolveRuntimeArtifactRoot(root, c.install_dir);
  if (c.expected_root != nullptr) {
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_EQ(root.native(), c.expected_root);
  } else {
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->category, 7);
    EXPECT_EQ(result.error->code, 1);
    EXPECT_EQ(result.error->message, c.expected_error);
    EXPECT_TRUE(root.empty());
  }
}

constexpr const char* kTraversal = "Profile install_dir must be an absolute path without parent traversal";
constexpr const char* kFilesystemRoot = "Profile directory must not be a filesystem root";

// A profile directory with a trailing separator, and a relative one, are tried end to end
// (e2e/file_export_test), as is a missing temporary directory.
INSTANTIATE_TEST_SUITE_P(
    Cases, ProfileInstallDir,
    testing::Values(ProfileCase{"/opt/p/sandbox_envs_dir", "/opt/p/brimo_stack", nullptr},
                    ProfileCase{"/opt/p/sandbox_envs_dir//", "/opt/p/brimo_stack", nullptr},
                    ProfileCase{"/opt/./p//sandbox_envs_dir/.", "/opt/p/brimo_stack", nullptr},
                    ProfileCase{"/opt/\xff\xfe/sandbox_envs_dir", "/opt/\xff\xfe/brimo_stack", nullptr},
                    ProfileCase{"/sandbox_envs_dir", nullptr, kFilesystemRoot},
                    ProfileCase{"//sandbox_envs_dir/", nullptr, kFilesystemRoot},
                    ProfileCase{"/x/../sandbox_envs_dir", nullptr, kTraversal},
                    ProfileCase{"/opt/../p/sandbox_envs_dir", nullptr, kTraversal}));

class TempRoot : public testing::Test {
 protected:
  quay_test::TempDir temp_;
};

// Anything but a profile install_dir lands under the temp root, relative or not. The export
// root below it, and that finding it creates nothing, are tried end to end (e2e/file_export_test).
TEST_F(TempRoot, OtherInstallDirsUseTheTempRoot) {
  ScopedTmpdir tmpdir(temp_.path().native() + "//");
  for (const char* install_dir : {"", "/opt/p/other", "rel/other", "/opt/p/Sandbox_Envs_Dir",
                                  "/opt/p/sandbox_envs_dir/.."}) {
    fs::path root;
    const CommandResult result = rt::ResolveRuntimeArtifactRoot(root, install_dir);
    ASSERT_TRUE(result.ok) << install_dir << ": " << result.error->message;
    EXPECT_EQ(root, temp_.path() / "qz") << install_dir;
  }
}

TEST(TempRootDefault, UnsetOrEmptyTmpdirMeansSlashTmp) {
  for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
    ScopedTmpdir tmpdir(value);
    fs::path temp;
    ASSERT_TRUE(rt::ResolveSystemTempRootForSandboxFiles(temp).ok);
    EXPECT_EQ(temp.native(), "/tmp");
    EXPECT_EQ(rt::BrimoStackRuntimeArtifactRoot("").native(), "/tmp/qz");
  }
}

struct BadTmpdirCase {
  const char* name;
  int category;
  int code;
  const char* message;
};

class BadTmpdir : public testing::TestWithParam<BadTmpdirCase> {
 protected:
  quay_test::TempDir temp_;
};

TEST_P(BadTmpdir, IsRefusedByEveryRootFunction) {
  const BadTmpdirCase& c = GetParam();
  temp_.WriteFile("a_file", "x");
  std::string value = c.name;
  if (value.rfind("@/", 0) == 0) {
    value = temp_.path().native() + value.substr(1);
  }
  ScopedTmpdir tmpdir(value);

  fs::path temp("stale");
  const CommandResult direct = rt::ResolveSystemTempRootForSandboxFiles(temp);
  ASSERT_FALSE(direct.ok);
  EXPECT_EQ(direct.error->category, c.category);
  EXPECT_EQ(direct.error->code, c.code);
  EXPECT_EQ(direct.error->message, c.message);
  EXPECT_TRUE(temp.empty());

  // The failure reaches the callers unchanged, and no stale root survives it.
  fs::path root("stale");
  const CommandResult through = rt::ResolveToolOutputsRoot(root, "/opt/p/not_a_profile");
  ASSERT_FALSE(through.ok);
  EXPECT_EQ(through.error->message, c.message);
  EXPECT_TRUE(root.empty());
  EXPECT_TRUE(rt::BrimoStackRuntimeArtifactRoot("").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadTmpdir,
    testing::Values(
        BadTmpdirCase{"relative/tmp", 3, 0, "system temporary directory resolved to an unsafe path"},
        BadTmpdirCase{"/", 3, 0, "system temporary directory resolved to an unsafe path"},
        BadTmpdirCase{"//./", 3, 0, "system temporary directory resolved to an unsafe path"},
        BadTmpdirCase{"@/a_file", 6, 20, "validate system temporary directory failed: Not a directory"}));

}  // namespace
