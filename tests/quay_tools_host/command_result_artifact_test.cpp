// Result artifacts on real directories: what is refused leaves the disk as it was, what is
// written holds exactly the response, and no link below the root ever leads a write out.
#include "quay_tools_host/command_result_artifact.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::CommandResult;
using brimo_stack::MakeJsonOutputResult;
using brimo_stack::quay_tools_host::WriteResultArtifact;

CommandResult SearchResult(const std::string& match) { return MakeJsonOutputResult({{"matches", {match}}}); }

// Every entry below `base` with a file's content or a link's target: a refusal must leave it equal.
std::map<std::string, std::string> Snapshot(const fs::path& base) {
  std::map<std::string, std::string> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(base)) {
    const std::string name = entry.path().lexically_relative(base).native();
    entries[name] = entry.is_symlink()        ? "-> " + fs::read_symlink(entry.path()).native()
                    : entry.is_regular_file() ? quay_test::ReadWholeFile(entry.path())
                                              : "<dir>";
  }
  return entries;
}

// The profile case puts the runtime artifact root beside `sandbox_envs_dir`: <base>/brimo_stack.
class ArtifactTest : public ::testing::Test {
 protected:
  ArtifactTest() {
    fs::create_directories(root_ / "sub");
    fs::create_directory(base_ / "outside");
    dir_.WriteFile("brimo_stack/file.txt", "x");
    dir_.WriteFile("brimo_stack/existing.json", "old");
    fs::create_directory_symlink(base_ / "outside", root_ / "link");
    fs::create_symlink(base_ / "outside/dangling.json", root_ / "dangling.json");
  }
  CommandResult Write(CommandResult result, const std::string& file) {
    return WriteResultArtifact(std::move(result), file, install_dir_);
  }
  // "{root}" and "{base}" in a case's path, expanded.
  [[nodiscard]] std::string Expand(std::string text) const {
    for (const auto& [key, value] : {std::pair{"{root}", root_}, std::pair{"{base}", base_}}) {
      for (size_t at = text.find(key); at != std::string::npos; at = text.find(key)) {
        text.replace(at, std::string_view(key).size(), value.native());
      }
    }
    return text;
  }

  quay_test::TempDir dir_;
  fs::path base_ = fs::canonical(dir_.path());
  fs::path root_ = base_ / "brimo_stack";
  std::string install_dir_ = (base_ / "sandbox_envs_dir").native();
};

struct RefusalCase {
  const char* name;
  std::string result_file;
  int category, code;
  const char* message;
  const char* install_dir = nullptr;  // the fixture's when null
  CommandResult result = SearchResult("a.txt");
};

constexpr const char* kEscapes = "file command result artifact escapes the runtime artifact root";
const RefusalCase kRefusals[] = {
    {"outside_root", "{base}/outside/a.json", 3, 0, kEscapes},
    {"dotdot_out", "{root}/sub/../../outside/a.json", 3, 0, kEscapes},
    {"sibling_with_root_prefix", "{root}_x/a.json", 3, 0, kEscapes},
    {"relative", "brimo_stack/a.json", 3, 0, kEscapes},
    {"link_component", "{root}/link/a.json", 3, 0, kEscapes},
    {"nul_byte", std::string("{root}/a.json\0/x", 16), 3, 0, "path contains a NUL character"},
    {"equal_to_root", "{root}/", 3, 0, "file command result artifact already exists"},
    {"existing_file", "{root}/existing.json", 3, 0, "file command result artifact already exists"},
    {"dangling_link", "{root}/dangling.json", 3, 0, "file command result artifact already exists"},
    {"missing_parent", "{root}/missing/a.json", 6, ENOENT,
     "inspect file command result directory failed: No such file or directory"},
    {"parent_is_file", "{root}/file.txt/a.json", 3, 0, "file command result directory is unavailable"},
    // A relative profile directory is refused, so there is no root for anything to lie below.
    {"no_root", "{root}/a.json", 3, 0, kEscapes, "p/sandbox_envs_dir"},
    // A failed command passes through unwritten.
    {"failure_passes_through", "{root}/a.json", 7, 1, "search refused", nullptr,
     CommandResult::Failure(7, 1, "search refused")},
};

void PrintTo(const RefusalCase& c, std::ostream* out) { *out << c.name; }

class ArtifactRefusal : public ArtifactTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(ArtifactRefusal, FailsAndLeavesTheDiskAsItWas) {
  const RefusalCase& c = GetParam();
  const auto before = Snapshot(base_);
  const CommandResult result =
      WriteResultArtifact(c.result, Expand(c.result_file), c.install_dir != nullptr ? c.install_dir : install_dir_);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->category, c.category);
  EXPECT_EQ(result.error->code, c.code);
  EXPECT_EQ(result.error->message, c.message);
  EXPECT_EQ(Snapshot(base_), before);
}

INSTANTIATE_TEST_SUITE_P(Cases, ArtifactRefusal, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

// An empty name returns the result itself and writes nothing.
TEST_F(ArtifactTest, WritesTheCompactResponseAndReturnsABareSuccess) {
  const auto before = Snapshot(base_);
  const CommandResult unchanged = Write(SearchResult("a.txt"), "");
  ASSERT_TRUE(unchanged.ok && unchanged.outputs.has_value());
  EXPECT_EQ(unchanged.outputs->size(), 1u);
  EXPECT_EQ(Snapshot(base_), before);

  // A name that is not UTF-8 is written as the answer on the channel would carry it.
  const struct {
    const char *result_file, *written, *match, *match_json;
  } cases[] = {{"{root}/out.json", "out.json", "dir/a.txt", "dir/a.txt"},
               {"{root}/sub/../dotdot.json", "dotdot.json", "dir/a.txt", "dir/a.txt"},
               {"{root}/sub/nested.json", "sub/nested.json", "dir/a.txt", "dir/a.txt"},
               {"{root}/bad.json", "bad.json", "bad\xff.txt", "bad\xef\xbf\xbd.txt"}};
  for (const auto& c : cases) {
    const CommandResult result = Write(SearchResult(c.match), Expand(c.result_file));
    ASSERT_TRUE(result.ok) << c.result_file << ": " << result.error->message;
    EXPECT_FALSE(result.outputs.has_value());
    EXPECT_EQ(quay_test::ReadWholeFile(root_ / c.written),
              std::string(R"({"ok":true,"outputs":[{"data":{"matches":[")") + c.match_json +
                  R"("]},"type":"json"}]})");
    EXPECT_TRUE(quay_test::TempSiblingsIn((root_ / c.written).parent_path()).empty());
  }
}

// The root's own path is the host's configuration ($TMPDIR may be a link): it is followed.
TEST_F(ArtifactTest, FollowsALinkThatIsTheRootItself) {
  fs::rename(root_, base_ / "real_root");
  fs::create_directory_symlink(base_ / "real_root", root_);
  ASSERT_TRUE(Write(SearchResult("a.txt"), (root_ / "sub/out.json").native()).ok);
  EXPECT_TRUE(fs::is_regular_file(base_ / "real_root/sub/out.json"));
}

// A directory of the path traded for a link to the outside in a loop: every artifact lands
// below the root or is refused, never behind the link.
TEST_F(ArtifactTest, NeverWritesThroughASwappedLink) {
  fs::create_directory(root_ / "work");
  fs::create_directory_symlink(base_ / "outside", root_ / "swap");
  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    while (!stop.load()) {
      ::renameat2(AT_FDCWD, (root_ / "work").c_str(), AT_FDCWD, (root_ / "swap").c_str(), RENAME_EXCHANGE);
    }
  });
  int written = 0;
  int refused = 0;
  // A busy machine may starve the swapper for a while: go on, for a bounded time, until both
  // sides of the race were seen.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (int n = 0; n < 2000 || ((written == 0 || refused == 0) && std::chrono::steady_clock::now() < deadline); ++n) {
    const std::string file = (root_ / "work" / (std::to_string(n) + ".json")).native();
    (Write(SearchResult("a.txt"), file).ok ? written : refused)++;
  }
  stop.store(true);
  swapper.join();
  EXPECT_EQ(std::distance(fs::directory_iterator(base_ / "outside"), fs::directory_iterator()), 0);
  EXPECT_GT(written, 0);
  EXPECT_GT(refused, 0);
}

}  // namespace
