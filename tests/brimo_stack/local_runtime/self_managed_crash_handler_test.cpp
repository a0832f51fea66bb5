// The dump path and GUID forms, and the set-up steps that decide whether a handler stands.
#include "brimo_stack/local_runtime/self_managed_crash_handler.h"

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

const std::regex kGuidForm("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");

struct GuidCase {
  const char* name;
  std::array<uint8_t, 16> bytes;
  const char* text;
};

class Version4GuidTest : public testing::TestWithParam<GuidCase> {};

TEST_P(Version4GuidTest, PrintsBytesInOrderWithVersionAndVariantBits) {
  EXPECT_EQ(FormatDumpGuid(MakeVersion4Guid(GetParam().bytes)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, Version4GuidTest,
    testing::Values(
        GuidCase{"AllZero", {}, "00000000-0000-4000-8000-000000000000"},
        GuidCase{"AllOnes",
                 {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
                 "ffffffff-ffff-4fff-bfff-ffffffffffff"},
        GuidCase{"Counting",
                 {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f},
                 "00010203-0405-4607-8809-0a0b0c0d0e0f"},
        GuidCase{"HighNibblesReplaced",
                 {0xde, 0xad, 0xbe, 0xef, 0xca, 0xfe, 0xba, 0xbe, 0x7f, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0xa0},
                 "deadbeef-cafe-4abe-bf10-2030405060a0"}),
    [](const testing::TestParamInfo<GuidCase>& info) { return info.param.name; });

TEST(DumpGuid, FieldsPrintWithLeadingZeros) {
  DumpGuid guid;
  guid.data1 = 0x1;
  guid.data2 = 0x2;
  guid.data3 = 0x4003;
  guid.data4 = {0x80, 0x4, 0, 0, 0, 0, 0, 0x5};
  EXPECT_EQ(FormatDumpGuid(guid), "00000001-0002-4003-8004-000000000005");
}

TEST(DumpGuid, RandomGuidsAreVersion4AndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    std::array<uint8_t, 16> bytes{};
    ASSERT_TRUE(FillRandomBytes(bytes).ok);
    const std::string text = FormatDumpGuid(MakeVersion4Guid(bytes));
    EXPECT_TRUE(std::regex_match(text, kGuidForm)) << text;
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 64u);
}

TEST(DumpFileName, HostPidGuidAndExtension) {
  EXPECT_EQ(MakeDumpFileName("quay_tools_host", 4242, "00010203-0405-4607-8809-0a0b0c0d0e0f"),
            "quay_tools_host_4242_00010203-0405-4607-8809-0a0b0c0d0e0f.dmp");
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

TEST(PrepareDumpFilePath, RelativeDirectoryIsMadeAbsoluteAndCreated) {
  quay_test::TempDir temp;
  const std::filesystem::path base = std::filesystem::canonical(temp.path());
  WorkingDirectory cwd(base);
  std::filesystem::path path;
  ASSERT_TRUE(PrepareDumpFilePath({kSelfManagedCrashMode, "nested//dumps/./x/.."}, "quay_tools_host", path).ok);
  EXPECT_TRUE(path.is_absolute());
  EXPECT_EQ(path.parent_path(), base / "nested" / "dumps" / "brimo_stack");
  EXPECT_TRUE(std::filesystem::is_directory(path.parent_path()));
  EXPECT_FALSE(std::filesystem::exists(path));
  const std::regex name_form("quay_tools_host_" + std::to_string(::getpid()) +
                             "_[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\\.dmp");
  EXPECT_TRUE(std::regex_match(path.filename().string(), name_form)) << path;
}

TEST(PrepareDumpFilePath, EachCallTakesAFreshGuid) {
  quay_test::TempDir temp;
  std::filesystem::path first;
  std::filesystem::path second;
  ASSERT_TRUE(PrepareDumpFilePath({kSelfManagedCrashMode, temp.path().string()}, "quay_tools_host", first).ok);
  ASSERT_TRUE(PrepareDumpFilePath({kSelfManagedCrashMode, temp.path().string()}, "quay_tools_host", second).ok);
  EXPECT_NE(first, second);
  EXPECT_EQ(first.parent_path(), second.parent_path());
}

struct RefusedCase {
  const char* name;
  const char* dump_dir;  // below the temporary directory; the file "blocker" exists there
  const char* host;
};

class PrepareDumpFilePathRefusedTest : public testing::TestWithParam<RefusedCase> {};

TEST_P(PrepareDumpFilePathRefusedTest, FailsAndLeavesPathUntouched) {
  quay_test::TempDir temp;
  temp.WriteFile("blocker", "a file, not a directory");
  const std::string dump_dir = std::string(GetParam().dump_dir).empty() ? "" : (temp.path() / GetParam().dump_dir).string();
  std::filesystem::path path = "untouched";
  const CommandResult result = PrepareDumpFilePath({kSelfManagedCrashMode, dump_dir}, GetParam().host, path);
  EXPECT_FALSE(result.ok);
  ASSERT_TRUE(result.error.has_value());
  EXPECT_FALSE(result.error->message.empty());
  EXPECT_EQ(path, "untouched");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PrepareDumpFilePathRefusedTest,
    testing::Values(RefusedCase{"EmptyDumpDir", "", "quay_tools_host"}, RefusedCase{"EmptyHost", "dumps", ""},
                    RefusedCase{"DumpDirIsAFile", "blocker", "quay_tools_host"},
                    RefusedCase{"ParentIsAFile", "blocker/dumps", "quay_tools_host"}),
    [](const testing::TestParamInfo<RefusedCase>& info) { return info.param.name; });

TEST(PrepareDumpFilePath, PathOverTheUnitLimitIsRefused) {
  quay_test::TempDir temp;
  std::filesystem::path path;
  const std::string host(kMaxDumpPathUnits, 'h');
  EXPECT_FALSE(PrepareDumpFilePath({kSelfManagedCrashMode, temp.path().string()}, host, path).ok);
  EXPECT_TRUE(path.empty());
}

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
