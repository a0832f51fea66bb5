// The rg road of file_glob below the command: the prefix plan, the --glob translation, the
// verifier that proves every printed path again, and runs of stand-ins that misbehave.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "quay_tools_host/search/ripgrep_glob_path_verifier.h"
#include "quay_tools_host/search/ripgrep_glob_plan.h"
#include "quay_tools_host/search/ripgrep_glob_run.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

json JsonOf(const CommandResult& result) { return std::get<DataOutput>(result.outputs->at(0)).data; }

TEST(ToRipgrepGlobTest, OnlyAFixedLastNameOrAnExtensionReachesRg) {
  const struct {
    std::string_view pattern;
    std::optional<std::string> glob;
  } cases[] = {
      {"**/*.h", "*.h"},           {"src/*/*.c", "*.c"},   {"**/std[io].h", "std\\[io\\].h"},
      {"a\\b/**/x***y?", std::nullopt}, {"**/*.tar.gz", std::nullopt}, {"*/x*.c", std::nullopt},
      {"src/**", std::nullopt},    {"a/", std::nullopt},   {"{a,b}!", "\\{a,b\\}\\!"},
  };
  for (const auto& test : cases) EXPECT_EQ(ToRipgrepGlob(test.pattern), test.glob) << test.pattern;
}

class RipgrepGlobTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = dir_.path() / "root";
    (void)dir_.WriteFile("root/src/lib/main.c", "");
    (void)dir_.WriteFile("root/src/lib/.hidden.c", "");
    (void)dir_.WriteFile("root/src/secret/key.c", "");
    (void)dir_.WriteFile("root/notes.txt", "");
    (void)dir_.WriteFile("outside/main.c", "");
    fs::create_directory_symlink(dir_.path() / "outside", root_ / "src/escape");
    fs::create_symlink(root_ / "notes.txt", root_ / "src/lib/link.c");
  }

  FileAccessPolicy Policy(std::vector<std::string> blacklist = {}) const {
    FileAccessPolicyConfig config;
    config.case_sensitive = true;
    config.blacklist_patterns = std::move(blacklist);
    return CompileFileAccessPolicy(config, false);
  }

  quay_test::TempDir dir_;
  fs::path root_;
};

TEST_F(RipgrepGlobTreeTest, PlanWalksTheFixedPrefixAndKeepsWhatIsLeft) {
  const struct {
    std::string pattern;
    uint64_t max_depth;
    std::string root;  // below root_
    std::string rest;
    uint64_t depth;
    bool single_level, no_results;
    std::optional<std::string> literal;
  } cases[] = {
      {"src/lib/*.c", 10, "src/lib", "*.c", 1, true, false, std::nullopt},
      {"src/lib/main.c", 10, "src/lib", "main.c", 1, true, false, "main.c"},
      {"src\\**\\*.c", 10, "src", "**/*.c", 9, false, false, std::nullopt},
      {"src/*/x/*.c", 10, "src", "*/x/*.c", 3, false, false, std::nullopt},
      {"src/lib/*.c", 2, "src/lib", "*.c", 2, false, true, std::nullopt},
      {"missing/*.c", 10, "missing", "*.c", 10, false, true, std::nullopt},
      {"notes.txt/*.c", 10, "notes.txt", "*.c", 10, false, true, std::nullopt},
      {"src/escape/*.c", 10, "src/escape", "*.c", 10, false, true, std::nullopt},
      {"src/secret/*.c", 10, "src/secret", "*.c", 10, false, true, std::nullopt},
      {"src//*.c", 10, "", "src//*.c", 10, false, false, std::nullopt},
      {"src/../*.c", 10, "", "src/../*.c", 10, false, false, std::nullopt},
  };
  const FileAccessPolicy policy = Policy({(root_ / "src/secret").string()});
  for (const auto& test : cases) {
    RipgrepGlobPlan plan;
    plan.root = root_;
    plan.pattern = test.pattern;
    plan.max_depth = test.max_depth;
    ASSERT_TRUE(BuildRipgrepGlobPlan(policy, plan).ok) << test.pattern;
    EXPECT_EQ(plan.no_results, test.no_results) << test.pattern;
    if (test.no_results) continue;
    EXPECT_EQ(plan.root, test.root.empty() ? root_ : root_ / test.root) << test.pattern;
    EXPECT_EQ(plan.pattern, test.rest) << test.pattern;
    EXPECT_EQ(plan.max_depth, test.depth) << test.pattern;
    EXPECT_EQ(plan.single_level, test.single_level) << test.pattern;
    EXPECT_EQ(plan.literal_name, test.literal) << test.pattern;
  }
}

TEST_F(RipgrepGlobTreeTest, VerifierCountsOnlyRealFilesThatMatchAndPassThePolicy) {
  RipgrepGlobPathVerifier verifier(root_, Policy({(root_ / "src/secret").string()}));
  const GlobPattern pattern("**/*.c");
  GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, false);
  for (const std::string_view record :
       {"./src/lib/main.c", "src/lib/.hidden.c", "src/lib/link.c", "src/escape/main.c", "src/secret/key.c",
        "notes.txt", "/etc/passwd.c", "../outside/main.c", "src/../../outside/main.c", ".", "", "src/lib/gone.c"}) {
    ASSERT_TRUE(verifier.Verify(record, pattern, builder).ok) << record;
  }
  EXPECT_EQ(builder.count(), 1u);
  EXPECT_EQ(JsonOf(builder.ToResult())["matches"]["file"], json({(root_ / "src/lib/main.c").string()}));
}

TEST_F(RipgrepGlobTreeTest, VerifierDropsPathsOnceTheirDirectoryBecameALink) {
  RipgrepGlobPathVerifier verifier(root_, Policy());
  const GlobPattern pattern("**/*.c");
  GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, false);
  ASSERT_TRUE(verifier.Verify("src/lib/main.c", pattern, builder).ok);
  ASSERT_EQ(builder.count(), 1u);
  // The proved directory moves away and a link to the outside takes its name.
  fs::rename(root_ / "src/lib", dir_.path() / "moved");
  fs::create_directory_symlink(dir_.path() / "outside", root_ / "src/lib");
  verifier.StartRead();
  ASSERT_TRUE(verifier.Verify("src/lib/main.c", pattern, builder).ok);
  EXPECT_EQ(builder.count(), 1u);
  // The same for a level above a directory that stays held open.
  (void)dir_.WriteFile("root/src/deep/x.c", "");
  (void)dir_.WriteFile("real/deep/x.c", "");
  ASSERT_TRUE(verifier.Verify("src/deep/x.c", pattern, builder).ok);
  ASSERT_EQ(builder.count(), 2u);
  fs::rename(root_ / "src", dir_.path() / "moved_src");
  fs::create_directory_symlink(dir_.path() / "real", root_ / "src");
  verifier.StartRead();
  ASSERT_TRUE(verifier.Verify("src/deep/x.c", pattern, builder).ok);
  EXPECT_EQ(builder.count(), 2u);
}

class RipgrepGlobRunTest : public RipgrepGlobTreeTest {
 protected:
  fs::path Script(std::string_view name, std::string_view text) {
    const fs::path path = dir_.WriteFile(std::string("bin/") + std::string(name), text);
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }

  CommandResult Run(const fs::path& rg, GlobResultBuilder& builder, bool& started, uint64_t timeout_ms = 20000) {
    RipgrepGlobRun glob_run;
    glob_run.run.rg_path = rg;
    glob_run.run.arguments = arguments_;
    glob_run.run.cwd = root_;
    glob_run.run.root = root_;
    glob_run.run.timeout_ms = timeout_ms;
    glob_run.pattern = &pattern_;
    glob_run.policy = &policy_;
    return RunRipgrepGlobProcess(glob_run, builder, started);
  }

  GlobPattern pattern_{"**/*.c"};
  FileAccessPolicy policy_ = Policy();
  std::vector<std::string> arguments_{"--no-config", "--files", "--null", "--no-ignore", "--hidden", "--", "."};
};

TEST_F(RipgrepGlobRunTest, RealRgListsAndTheVerifierKeepsTheSameAsItsRules) {
  GlobResultBuilder builder(GlobKindBit(GlobEntryKind::kFile), UINT64_MAX, false);
  bool started = false;
  ASSERT_TRUE(Run("/usr/bin/rg", builder, started).ok);
  EXPECT_TRUE(started);
  EXPECT_EQ(JsonOf(builder.ToResult()),
            json({{"matches", {{"file", {(root_ / "src/lib/main.c").string(), (root_ / "src/secret/key.c").string()}}}},
                  {"truncated", {{"file", false}}}}));
}

TEST_F(RipgrepGlobRunTest, TheCommandLineOfAPlanHidesNoNameWithALineFeedFromRg) {
  (void)dir_.WriteFile("root/new\nline/deep.c", "");
  (void)dir_.WriteFile("root/src/new\nline.c", "");
  const struct {
    const char* pattern;
    std::vector<std::string> files;  // below root_
  } cases[] = {
      {"**/*", {"new\nline/deep.c", "notes.txt", "src/lib/main.c", "src/new\nline.c", "src/secret/key.c"}},
      {"**/*.c", {"new\nline/deep.c", "src/lib/main.c", "src/new\nline.c", "src/secret/key.c"}},
      {"**/deep.c", {"new\nline/deep.c"}},
      {"**/d*", {"new\nline/deep.c"}},
      {"*/*.c", {"new\nline/deep.c", "src/new\nline.c"}},
  };
  for (const auto& test : cases) {
    RipgrepGlobPlan plan;
    plan.root = root_;
    plan.pattern = test.pattern;
    plan.max_depth = 10;
    ASSERT_TRUE(BuildRipgrepGlobArguments(plan, {}, arguments_).ok);
    pattern_ = GlobPattern(test.pattern);
    GlobResultBuilder builder(GlobKindBit(GlobEntryKind::kFile), UINT64_MAX, false);
    bool started = false;
    ASSERT_TRUE(Run("/usr/bin/rg", builder, started).ok) << test.pattern;
    json expected = json::array();
    for (const std::string& file : test.files) expected.push_back((root_ / file).string());
    EXPECT_EQ(JsonOf(builder.ToResult())["matches"]["file"], expected) << test.pattern;
  }
}

TEST_F(RipgrepGlobRunTest, MisbehavingListersEndInTheirOwnFailures) {
  const struct {
    const char* name;
    std::string script;
    uint64_t timeout_ms;
    std::string message;  // empty: success
    uint64_t count;
  } cases[] = {
      {"stderr and exit 2", "#!/bin/sh\nprintf 'src/lib/main.c\\0'\necho boom >&2\nexit 2\n", 20000,
       "GLOB_FAILED: boom", 1},
      {"silent exit 2", "#!/bin/sh\nexit 2\n", 20000, "GLOB_FAILED: rg exited unsuccessfully", 0},
      {"permission lines only", "#!/bin/sh\nprintf './src/x: Permission denied (os error 13)\\n' >&2\nexit 2\n",
       20000, "", 0},
      {"unterminated last path", "#!/bin/sh\nprintf 'src/lib/main.c\\0src/secret/key.c'\n", 20000,
       "GLOB_FAILED: rg returned an unterminated path", 1},
      {"overrun", "#!/bin/sh\nprintf 'src/lib/main.c\\0'\nexec sleep 30\n", 300,
       "GLOB_TIMEOUT: search exceeded timeout_ms", 1},
  };
  for (const auto& test : cases) {
    GlobResultBuilder builder(GlobKindBit(GlobEntryKind::kFile), UINT64_MAX, false);
    bool started = false;
    const CommandResult result = Run(Script(test.name, test.script), builder, started, test.timeout_ms);
    EXPECT_TRUE(started) << test.name;
    EXPECT_EQ(result.ok ? "" : result.error->message, test.message) << test.name;
    if (result.ok) {
      EXPECT_EQ(builder.count(), test.count) << test.name;
    }
  }
}

TEST_F(RipgrepGlobRunTest, AFullBuilderStopsAListerThatWouldNeverEnd) {
  GlobResultBuilder builder(GlobKindBit(GlobEntryKind::kFile), 1, false);
  bool started = false;
  const auto begin = std::chrono::steady_clock::now();
  const CommandResult result =
      Run(Script("endless", "#!/bin/sh\nwhile :; do printf 'src/lib/main.c\\0'; done\n"), builder, started, 60000);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(builder.count(), 1u);
  EXPECT_TRUE(builder.IsExhausted());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST_F(RipgrepGlobRunTest, AListerThatCannotStartLeavesTheWalkToDoTheWork) {
  const fs::path not_executable = dir_.WriteFile("bin/plain", "#!/bin/sh\n");
  GlobResultBuilder builder(GlobKindBit(GlobEntryKind::kFile), UINT64_MAX, false);
  bool started = true;
  EXPECT_FALSE(Run(not_executable, builder, started).ok);
  EXPECT_FALSE(started);
  EXPECT_EQ(builder.count(), 0u);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
