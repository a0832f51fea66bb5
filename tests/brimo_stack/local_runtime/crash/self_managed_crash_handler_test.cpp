// The dump path and GUID forms, and the set-up steps that decide whether a handler stands.
#include "brimo_stack/local_runtime/crash/self_managed_crash_handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "support/temp_dir.h"

namespace brimo_stack::local_runtime {
namespace {

constexpr char kGuidForm[] = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";

TEST(DumpGuid, PrintsBytesInOrderWithVersionAndVariantBits) {
  const struct {
    std::array<uint8_t, 16> bytes;
    const char* text;
  } cases[] = {
      {{}, "00000000-0000-4000-8000-000000000000"},
      {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
       "ffffffff-ffff-4fff-bfff-ffffffffffff"},
      {{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f},
       "00010203-0405-4607-8809-0a0b0c0d0e0f"}};
  for (const auto& c : cases) EXPECT_EQ(FormatDumpGuid(MakeVersion4Guid(c.bytes)), c.text);
}

TEST(DumpGuid, RandomGuidsAreVersion4AndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    std::array<uint8_t, 16> bytes{};
    ASSERT_TRUE(FillRandomBytes(bytes).ok);
    const std::string text = FormatDumpGuid(MakeVersion4Guid(bytes));
    EXPECT_TRUE(std::regex_match(text, std::regex(kGuidForm))) << text;
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 64u);
}

// Restores the working directory, which a relative dump directory is resolved against.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::filesystem::path& path) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~WorkingDirectory() { std::filesystem::current_path(saved_); }

 private:
  std::filesystem::path saved_;
};

TEST(PrepareDumpFilePath, RelativeDirectoryIsMadeAbsoluteAndEachCallTakesAFreshName) {
  quay_test::TempDir temp;
  const std::filesystem::path base = std::filesystem::canonical(temp.path());
  WorkingDirectory cwd(base);
  std::filesystem::path path;
  ASSERT_TRUE(PrepareDumpFilePath({kSelfManagedCrashMode, "nested//dumps/./x/.."}, "quay_tools_host", path).ok);
  EXPECT_TRUE(path.is_absolute());
  EXPECT_EQ(path.parent_path(), base / "nested" / "dumps" / "brimo_stack");
  EXPECT_TRUE(std::filesystem::is_directory(path.parent_path()));
  EXPECT_FALSE(std::filesystem::exists(path));
  const std::regex name_form("quay_tools_host_" + std::to_string(::getpid()) + "_" + kGuidForm + "\\.dmp");
  EXPECT_TRUE(std::regex_match(path.filename().string(), name_form)) << path;
  std::filesystem::path second;
  ASSERT_TRUE(PrepareDumpFilePath({kSelfManagedCrashMode, "nested/dumps"}, "quay_tools_host", second).ok);
  EXPECT_NE(second, path);
  EXPECT_EQ(second.parent_path(), path.parent_path());
}

struct RefusedCase {
  const char* name;
  const char* dump_dir;  // below the temporary directory; the file "blocker" exists there
  std::string host;
  const char* message;
};

class PrepareDumpFilePathRefusedTest : public testing::TestWithParam<RefusedCase> {};

TEST_P(PrepareDumpFilePathRefusedTest, FailsAndLeavesPathUntouched) {
  quay_test::TempDir temp;
  temp.WriteFile("blocker", "a file, not a directory");
  const std::string dump_dir = std::string(GetParam().dump_dir).empty() ? "" : (temp.path() / GetParam().dump_dir).string();
  std::filesystem::path path = "untouched";
  const CommandResult result = PrepareDumpFilePath({kSelfManagedCrashMode, dump_dir}, GetParam().host, path);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message, GetParam().message);
  EXPECT_EQ(path, "untouched");
}

constexpr const char* kRequired = "CRASH_DUMP_CONFIG_INVALID: dump_dir and host are required";

INSTANTIATE_TEST_SUITE_P(
    Cases, PrepareDumpFilePathRefusedTest,
    testing::Values(RefusedCase{"EmptyDumpDir", "", "quay_tools_host", kRequired},
                    RefusedCase{"EmptyHost", "dumps", "", kRequired},
                    RefusedCase{"DumpDirIsAFile", "blocker", "quay_tools_host",
                                "create dump directory failed: Not a directory"},
                    RefusedCase{"ParentIsAFile", "blocker/dumps", "quay_tools_host",
                                "create dump directory failed: Not a directory"},
                    RefusedCase{"PathOverTheUnitLimit", "dumps", std::string(kMaxDumpPathUnits, 'h'),
                                "CRASH_DUMP_PATH_TOO_LONG"}),
    [](const testing::TestParamInfo<RefusedCase>& info) { return info.param.name; });

struct ModeCase {
  const char* name;
  uint8_t mode;
  const char* dump_dir;
  bool expected;
};

class InitializeWithoutHandlerTest : public testing::TestWithParam<ModeCase> {};

// Only outcomes that install nothing run in this process; a successful install is tested in
// its own process by the crash dump end-to-end tests.
TEST_P(InitializeWithoutHandlerTest, ReturnsVerdictAndSetsNoVariable) {
  ::unsetenv(std::string(kDumpFileEnvironmentVariable).c_str());
  quay_test::TempDir temp;
  temp.WriteFile("blocker", "x");
  const std::string dump_dir = *GetParam().dump_dir == '\0' ? "" : (temp.path() / GetParam().dump_dir).string();
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGSEGV, nullptr, &before), 0);
  SelfManagedCrashHandler handler;
  EXPECT_EQ(handler.Initialize({GetParam().mode, dump_dir}, "quay_tools_host"), GetParam().expected);
  EXPECT_EQ(::getenv(std::string(kDumpFileEnvironmentVariable).c_str()), nullptr);
  struct sigaction after {};
  ASSERT_EQ(::sigaction(SIGSEGV, nullptr, &after), 0);
  EXPECT_EQ(reinterpret_cast<void*>(after.sa_sigaction), reinterpret_cast<void*>(before.sa_sigaction));
  EXPECT_EQ(after.sa_flags, before.sa_flags);
  EXPECT_FALSE(std::filesystem::exists(temp.path() / "dumps"));
}

INSTANTIATE_TEST_SUITE_P(Modes, InitializeWithoutHandlerTest,
                         testing::Values(ModeCase{"ModeZero", 0, "", true}, ModeCase{"ModeOne", 1, "", true},
                                         ModeCase{"ModeZeroIgnoresDir", 0, "dumps", true},
                                         ModeCase{"ModeTwoEmptyDir", 2, "", false},
                                         ModeCase{"ModeTwoUncreatableDir", 2, "blocker/dumps", false}),
                         [](const testing::TestParamInfo<ModeCase>& info) { return info.param.name; });

}  // namespace
}  // namespace brimo_stack::local_runtime
