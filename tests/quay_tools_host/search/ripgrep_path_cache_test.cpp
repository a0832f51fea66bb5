// Configure and Resolve of the rg path, against real files and the real process environment.
#include "quay_tools_host/search/ripgrep_path_cache.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

const char* kVariable = "BRIMO_STACK_RG_EXECUTABLE";

void ExpectFailure(const CommandResult& result, int category, int code, const std::string& message) {
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->category, category);
  EXPECT_EQ(result.error->code, code);
  EXPECT_EQ(result.error->message, message);
}

class RipgrepPathCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::unsetenv(kVariable);
    rg_ = dir_.WriteFile("bin/rg", "#!/bin/sh\n");
  }
  quay_test::TempDir dir_;
  std::filesystem::path rg_;
  RipgrepPathCache cache_;
};

TEST_F(RipgrepPathCacheTest, UnconfiguredAndEmptyConfigurations) {
  std::filesystem::path path;
  ExpectFailure(cache_.Resolve(path), 3, 0, "RG_NOT_FOUND: private rg environment is not initialized");
  ::setenv(kVariable, "/old", 1);
  ASSERT_TRUE(cache_.Configure("").ok);
  EXPECT_EQ(std::getenv(kVariable), nullptr);
  ExpectFailure(cache_.Resolve(path), 7, 1, "RG_NOT_FOUND: runtime activation did not provide rg");
}

TEST_F(RipgrepPathCacheTest, UnusablePathsAreRefusedAndLeaveItUnconfigured) {
  const std::string candidates[] = {"relative/rg", rg_.parent_path().string(), (dir_.path() / "missing").string()};
  for (const std::string& candidate : candidates) {
    ASSERT_TRUE(cache_.Configure(rg_.string()).ok);
    ExpectFailure(cache_.Configure(candidate), 7, 1, "RG_NOT_FOUND: activated rg executable is unavailable");
    std::filesystem::path path;
    ExpectFailure(cache_.Resolve(path), 3, 0, "RG_NOT_FOUND: private rg environment is not initialized");
  }
}

TEST_F(RipgrepPathCacheTest, ResolvesTheNormalisedPathAndFollowsLinks) {
  const auto link = dir_.path() / "rg-link";
  std::filesystem::create_symlink(rg_, link);
  const std::string messy = dir_.path().string() + "//bin/../rg-link/";
  ASSERT_TRUE(cache_.Configure(messy).ok);
  EXPECT_EQ(std::string(std::getenv(kVariable)), link.string());
  std::filesystem::path path;
  ASSERT_TRUE(cache_.Resolve(path).ok);
  EXPECT_EQ(path, link);
}

TEST_F(RipgrepPathCacheTest, EnvironmentChangeStopsSearches) {
  ASSERT_TRUE(cache_.Configure(rg_.string()).ok);
  std::filesystem::path path;
  ::setenv(kVariable, "/usr/bin/rg", 1);
  ExpectFailure(cache_.Resolve(path), 3, 0, "RG_NOT_FOUND: private rg environment changed after initialization");
  ::unsetenv(kVariable);
  ExpectFailure(cache_.Resolve(path), 3, 0, "RG_NOT_FOUND: private rg environment changed after initialization");
  ::setenv(kVariable, rg_.c_str(), 1);
  EXPECT_TRUE(cache_.Resolve(path).ok);
}

TEST_F(RipgrepPathCacheTest, DeletedExecutableStaysGone) {
  ASSERT_TRUE(cache_.Configure(rg_.string()).ok);
  std::filesystem::remove(rg_);
  std::filesystem::path path;
  ExpectFailure(cache_.Resolve(path), 7, 1, "RG_NOT_FOUND: activated rg executable is unavailable");
  (void)dir_.WriteFile("bin/rg", "back");
  ExpectFailure(cache_.Resolve(path), 7, 1, "RG_NOT_FOUND: activated rg executable is unavailable");
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
