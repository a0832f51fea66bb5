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
      {"kinds_not_wanted_neither_count_nor_mark", kFileBit, 1, false,
       {{K::kDirectory, "c"}, {K::kSymlink, "d"}, {K::kFile, "a"}, {K::kDirectory, "e"}}, 1, 0, false},
      {"every_wanted_kind_dropped", kFileBit | kSymlinkBit, 1, false,
       {{K::kFile, "a"}, {K::kSymlink, "d"}, {K::kDirectory, "c"}, {K::kFile, "b"}}, 1, kFileBit | kSymlinkBit, true},
      {"budget_keeps_below", kGlobAllTypes, 10, false, {{K::kFile, below}, {K::kSymlink, "x"}}, 2, 0, false},
      {"budget_drops_at", kGlobAllTypes, 10, false, {{K::kFile, reaching}, {K::kSymlink, "x"}}, 1, kSymlinkBit, false},
      {"budget_counts_escapes", kGlobAllTypes, 10, false, {{K::kFile, escaped_reaching}, {K::kFile, "x"}}, 1,
       kFileBit, false},
      {"files_only_has_no_budget", kGlobAllTypes, 10, true,
       {{K::kFile, reaching}, {K::kFile, reaching}, {K::kSymlink, "x"}}, 3, 0, false},
  };
  for (const auto& c : cases) {
    GlobResultBuilder builder(c.type_mask, c.max_results, c.files_only);
    for (const auto& [kind, text] : c.adds) builder.Add(kind, text);
    EXPECT_EQ(builder.count(), c.count) << c.name;
    EXPECT_EQ(builder.exhausted_mask(), c.exhausted_mask) << c.name;
    EXPECT_EQ(builder.IsExhausted(), c.exhausted) << c.name;
  }
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

// Same second: files before directories, and in the order they came; a link by its target's time.
TEST(GlobResultBuilderTest, FilesOnlyListsNewestFirstThroughLinks) {
  const quay_test::TempDir dir;
  const auto at = [&](const char* name) { return (dir.path() / name).native(); };
  for (const char* file : {"old", "early", "late", "target"}) dir.WriteFile(file, "x");
  fs::create_directory(at("sub"));
  fs::create_symlink(at("target"), at("link"));
  fs::create_symlink(at("nowhere"), at("dangling"));
  const std::pair<const char*, timespec> times[] = {
      {"old", {1000, 0}}, {"early", {3000, 100}}, {"late", {3000, 900'000'000}}, {"sub", {3000, 500}},
      {"target", {2000, 0}}};
  for (const auto& [name, time] : times) {
    const timespec both[2] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, at(name).c_str(), both, 0), 0) << name;
  }
  GlobResultBuilder builder(kGlobAllTypes, 7, true);
  using K = GlobEntryKind;
  const std::pair<K, const char*> adds[] = {{K::kSymlink, "link"}, {K::kDirectory, "sub"}, {K::kFile, "gone"},
                                            {K::kFile, "old"},     {K::kFile, "early"},    {K::kFile, "late"},
                                            {K::kSymlink, "dangling"},
                                            {K::kFile, "target"}};  // over the cap: leaves no trace
  for (const auto& [kind, name] : adds) builder.Add(kind, at(name));
  EXPECT_EQ(builder.exhausted_mask(), kFileBit);
  const std::vector<std::string> newest_first = {at("early"), at("late"), at("sub"), at("link"),
                                                 at("old"), at("gone"), at("dangling")};
  EXPECT_EQ(JsonOf(builder.ToResult()), nlohmann::json({{"files", newest_first}}));
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
