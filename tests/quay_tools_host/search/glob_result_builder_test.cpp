// The glob result collector: which limit drops what and marks which kind, and the two JSON forms.
#include "quay_tools_host/search/glob_result_builder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;

constexpr uint8_t kFileBit = GlobKindBit(GlobEntryKind::kFile);
constexpr uint8_t kDirectoryBit = GlobKindBit(GlobEntryKind::kDirectory);
constexpr uint8_t kSymlinkBit = GlobKindBit(GlobEntryKind::kSymlink);

const nlohmann::json& JsonOf(const CommandResult& result) {
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.outputs->size(), 1U);
  const auto& output = std::get<DataOutput>(result.outputs->front());
  EXPECT_EQ(output.type, "json");
  return output.data;
}

// A text whose entry costs exactly `cost` of the budget: bytes plus quotes and comma.
std::string PathCosting(uint64_t cost) { return std::string(cost - 3, 'p'); }

TEST(GlobResultBuilderTest, LimitsDropEntriesAndMarkTheirKind) {
  using K = GlobEntryKind;
  // With one more entry of cost 4 ("x"), the first lands one below the budget, the second on it.
  const std::string below = PathCosting(kGlobResultByteBudget - 5);
  const std::string reaching = PathCosting(kGlobResultByteBudget - 4);
  // As long as `below`, but a '"' escapes to two bytes.
  const std::string escaped_reaching = std::string(below.size() - 1, 'p') + '"';
  const struct {
    const char* name;
    uint8_t type_mask;
    uint64_t max_results;
    bool files_only;
    std::vector<std::pair<GlobEntryKind, std::string>> adds;
    uint64_t count;
    uint8_t exhausted_mask;
    bool exhausted;
  } cases[] = {
      {"cap_marks_the_dropped_kind_only", kGlobAllTypes, 2, false,
       {{K::kFile, "a"}, {K::kFile, "b"}, {K::kDirectory, "c"}}, 2, kDirectoryBit, false},
      {"cap_all_kinds_dropped", kGlobAllTypes, 1, false,
       {{K::kFile, "a"}, {K::kFile, "b"}, {K::kDirectory, "c"}, {K::kSymlink, "d"}}, 1, kGlobAllTypes, true},
      {"kinds_not_wanted_neither_count_nor_mark", kFileBit, 1, false,
       {{K::kDirectory, "c"}, {K::kSymlink, "d"}, {K::kFile, "a"}, {K::kDirectory, "e"}}, 1, 0, false},
      {"every_wanted_kind_dropped", kFileBit | kSymlinkBit, 1, false,
       {{K::kFile, "a"}, {K::kSymlink, "d"}, {K::kDirectory, "c"}, {K::kFile, "b"}}, 1, kGlobAllTypes & ~kDirectoryBit,
       true},
      {"zero_cap", kDirectoryBit, 0, false, {{K::kDirectory, "c"}}, 0, kDirectoryBit, true},
      {"budget_keeps_below", kGlobAllTypes, 10, false, {{K::kFile, below}, {K::kSymlink, "x"}}, 2, 0, false},
      {"budget_drops_at", kGlobAllTypes, 10, false, {{K::kFile, reaching}, {K::kSymlink, "x"}}, 1, kSymlinkBit,
       false},
      {"budget_counts_escapes", kGlobAllTypes, 10, false, {{K::kFile, escaped_reaching}, {K::kFile, "x"}}, 1,
       kFileBit, false},
      {"files_only_has_no_budget", kGlobAllTypes, 10, true,
       {{K::kFile, reaching}, {K::kFile, reaching}, {K::kSymlink, "x"}}, 3, 0, false},
      {"files_only_keeps_the_cap", kGlobAllTypes, 1, true, {{K::kFile, "a"}, {K::kSymlink, "x"}}, 1, kSymlinkBit,
       false},
  };
  for (const auto& c : cases) {
    GlobResultBuilder builder(c.type_mask, c.max_results, c.files_only);
    for (const auto& [kind, text] : c.adds) builder.Add(kind, text);
    EXPECT_EQ(builder.count(), c.count) << c.name;
    EXPECT_EQ(builder.exhausted_mask(), c.exhausted_mask) << c.name;
    EXPECT_EQ(builder.IsExhausted(), c.exhausted) << c.name;
  }
}

TEST(GlobResultBuilderTest, ChargesEscapedTextAndThreeBytesPerEntry) {
  GlobResultBuilder builder(kGlobAllTypes, 10, false);
  builder.Add(GlobEntryKind::kFile, "a\"b");   // 4 + 3
  builder.Add(GlobEntryKind::kFile, "t\x01");  // 7 + 3
  EXPECT_EQ(builder.json_bytes(), 17U);
}

TEST(GlobResultBuilderTest, ListsEachWantedKindInByteOrderWithItsTruncation) {
  GlobResultBuilder builder(kFileBit | kSymlinkBit, 4, false);
  for (const char* text : {"b", "\xC3\xA9", "a/z", "A"}) builder.Add(GlobEntryKind::kFile, text);
  builder.Add(GlobEntryKind::kDirectory, "d");  // not wanted: no key at all
  builder.Add(GlobEntryKind::kSymlink, "l");    // over the cap
  const nlohmann::json expected = {
      {"matches", {{"file", {"A", "a/z", "b", "\xC3\xA9"}}, {"symlink", nlohmann::json::array()}}},
      {"truncated", {{"file", false}, {"symlink", true}}},
  };
  EXPECT_EQ(JsonOf(builder.ToResult()), expected);
}

TEST(GlobResultBuilderTest, NothingWantedGivesEmptyObjects) {
  GlobResultBuilder builder(0, 10, false);
  builder.Add(GlobEntryKind::kFile, "a");
  const nlohmann::json expected = {{"matches", nlohmann::json::object()}, {"truncated", nlohmann::json::object()}};
  EXPECT_EQ(JsonOf(builder.ToResult()), expected);
}

void SetWriteTime(const fs::path& path, time_t seconds, long nanoseconds) {
  const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

TEST(GlobResultBuilderTest, FilesOnlyListsNewestFirstThroughLinks) {
  const quay_test::TempDir dir;
  const fs::path old_file = dir.WriteFile("old", "x");
  const fs::path early_in_second = dir.WriteFile("early", "x");
  const fs::path late_in_second = dir.WriteFile("late", "x");
  const fs::path subdirectory = dir.path() / "sub";
  fs::create_directory(subdirectory);
  const fs::path target = dir.WriteFile("target", "x");
  const fs::path link = dir.path() / "link";
  fs::create_symlink(target, link);
  fs::create_symlink(dir.path() / "nowhere", dir.path() / "dangling");
  SetWriteTime(old_file, 1000, 0);
  SetWriteTime(early_in_second, 3000, 100);
  SetWriteTime(late_in_second, 3000, 900'000'000);
  SetWriteTime(subdirectory, 3000, 500);
  SetWriteTime(target, 2000, 0);  // the link's own time is now, newer than all

  GlobResultBuilder builder(kGlobAllTypes, 7, true);
  builder.Add(GlobEntryKind::kSymlink, link);
  builder.Add(GlobEntryKind::kDirectory, subdirectory);
  builder.Add(GlobEntryKind::kFile, dir.path() / "gone");
  builder.Add(GlobEntryKind::kFile, old_file);
  builder.Add(GlobEntryKind::kFile, early_in_second);
  builder.Add(GlobEntryKind::kFile, late_in_second);
  builder.Add(GlobEntryKind::kSymlink, dir.path() / "dangling");
  builder.Add(GlobEntryKind::kFile, target);  // over the cap: leaves no trace
  EXPECT_EQ(builder.exhausted_mask(), kFileBit);

  // Same second: files before directories, and in the order they came.
  const nlohmann::json expected = {
      {"files",
       {early_in_second.native(), late_in_second.native(), subdirectory.native(), link.native(), old_file.native(),
        (dir.path() / "gone").native(), (dir.path() / "dangling").native()}},
  };
  EXPECT_EQ(JsonOf(builder.ToResult()), expected);
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
