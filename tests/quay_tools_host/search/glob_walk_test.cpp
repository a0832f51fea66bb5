// WalkGlob and ScanDirectoryForName on a real tree with links, with inotify telling which
// directories they opened, and against a link swapped in and out while they run.
#include "quay_tools_host/search/glob_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <ostream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "brimo_stack_common/posix/scoped_fd.h"
#include "support/temp_dir.h"

namespace brimo_stack::quay_tools_host::internal {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Names = std::set<std::string>;

const GlobDeadline kNoDeadline = GlobDeadline::max();

// What a builder kept, relative to `root` (anything outside it stays absolute, to show up).
struct Listed {
  Names files, directories, symlinks;
  bool operator==(const Listed&) const = default;
};

Listed Collect(GlobResultBuilder& builder, const fs::path& root) {
  const CommandResult result = builder.ToResult();
  const json& matches = std::get<DataOutput>(result.outputs->front()).data["matches"];
  const std::string head = root.native() + "/";
  const auto names = [&](const char* kind) {
    Names out;
    for (const json& item : matches.value(kind, json::array())) {
      const auto& path = item.get_ref<const std::string&>();
      out.insert(path.starts_with(head) ? path.substr(head.size()) : path);
    }
    return out;
  };
  return {names("file"), names("directory"), names("symlink")};
}

void PrintTo(const Listed& listed, std::ostream* out) {
  *out << json({{"files", listed.files}, {"directories", listed.directories}, {"symlinks", listed.symlinks}}).dump();
}

FileAccessPolicy Blacklist(std::vector<std::string> patterns) {
  FileAccessPolicyConfig config;
  config.blacklist_patterns = std::move(patterns);
  return CompileFileAccessPolicy(config, /*for_write=*/false);
}

// The directories below `top` opened while it watched, named relative to `root` ("" for it):
// inotify reports every open of a watched directory, a read of its listing included.
class OpenWatch {
 public:
  OpenWatch(const fs::path& top, const fs::path& root) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    std::vector<fs::path> directories = {top};
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      if (!entry.is_symlink() && entry.is_directory()) directories.push_back(entry.path());
    }
    // Watches go on after the listing above, so that its own opens are not counted.
    for (const fs::path& dir : directories) Watch(dir, dir.lexically_relative(root).native());
  }
  Names Opened() const {
    Names opened;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t got; (got = ::read(fd_.get(), buffer, sizeof(buffer))) > 0;) {
      for (ssize_t at = 0; at < got;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        if ((event->mask & IN_OPEN) != 0 && event->len == 0) opened.insert(names_.at(event->wd));
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    return opened;
  }

 private:
  void Watch(const fs::path& dir, const std::string& name) {
    const int wd = ::inotify_add_watch(fd_.get(), dir.c_str(), IN_OPEN | IN_ONLYDIR | IN_DONT_FOLLOW);
    ASSERT_GE(wd, 0) << dir;
    names_[wd] = name == "." ? "" : name;
  }
  ScopedFd fd_;
  std::map<int, std::string> names_;
};

class GlobWalkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {"root/a.c", "root/.hidden.c", "root/src/x.c", "root/src/deep/y.c", "root/src/deep/z.txt",
                             "root/docs/readme.md", "elsewhere/inner.c", "outside/secret.c"}) {
      temp_.WriteFile(file, "x");
    }
    const std::pair<const char*, const char*> links[] = {
        {"linkdir", "../elsewhere"}, {"linkfile", "a.c"},  {"broken", "missing"}, {"refused", "../outside/secret.c"},
        {"self", "."},               {"ping", "pong"},     {"pong", "ping"}};
    for (const auto& [name, target] : links) fs::create_symlink(target, root_ / name);
  }

  Listed Walk(const std::string& pattern, const FileAccessPolicy& policy, uint64_t max_depth = kGlobUnlimitedDepth) {
    GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/false);
    const CommandResult result = WalkGlob(root_, GlobPattern(pattern), policy, kNoDeadline, max_depth, builder);
    EXPECT_TRUE(result.ok) << result.error->message;
    return Collect(builder, root_);
  }

  quay_test::TempDir temp_;
  const fs::path base_ = fs::canonical(temp_.path());
  const fs::path root_ = base_ / "root";
  // Refuses the target of root/refused; every directory of the tree is whole.
  const FileAccessPolicy subtree_policy_ = Blacklist({(base_ / "outside/*").native()});
  // The same decisions, but a pattern that may apply anywhere makes every entry a policy check.
  const FileAccessPolicy entry_policy_ = Blacklist({(base_ / "outside/*").native(), "*.nomatch"});
};

TEST_F(GlobWalkTest, ListsWhatMatchesAndOpensOnlyWhatCanStillMatch) {
  const Names all_links = {"linkdir", "linkfile", "self"};  // broken, refused and looping links are left out
  const struct {
    std::string pattern;
    uint64_t max_depth;
    Listed listed;
    Names opened;
  } cases[] = {
      {"**", kGlobUnlimitedDepth,
       {{"a.c", "src/x.c", "src/deep/y.c", "src/deep/z.txt", "docs/readme.md"}, {"src", "src/deep", "docs"}, all_links},
       {"", "src", "src/deep", "docs"}},
      {"**", 1, {{"a.c"}, {"src", "docs"}, all_links}, {""}},
      // Used up at src/deep: it is listed, never opened.
      {"src/*", kGlobUnlimitedDepth, {{"src/x.c"}, {"src/deep"}, {}}, {"", "src"}},
      // linkdir could continue into elsewhere/inner.c, but a link is never entered.
      {"*/*.c", kGlobUnlimitedDepth, {{"src/x.c"}, {}, {}}, {"", "src", "docs"}},
      {".*", kGlobUnlimitedDepth, {{".hidden.c"}, {}, {}}, {""}},
  };
  ASSERT_TRUE(IsSubtreeFullyAllowed(subtree_policy_, root_.native()));
  ASSERT_FALSE(IsSubtreeFullyAllowed(entry_policy_, root_.native()));
  for (const auto& c : cases) {
    for (const FileAccessPolicy* policy : {&subtree_policy_, &entry_policy_}) {
      SCOPED_TRACE(c.pattern + " max_depth " + std::to_string(c.max_depth) +
                   (policy == &entry_policy_ ? " checked per entry" : " subtree allowed"));
      const OpenWatch watch(base_, root_);
      EXPECT_EQ(Walk(c.pattern, *policy, c.max_depth), c.listed);
      EXPECT_EQ(watch.Opened(), c.opened);
    }
  }
}

TEST_F(GlobWalkTest, RefusedDirectoryIsNeitherListedNorOpened) {
  const OpenWatch watch(base_, root_);
  const Listed listed = Walk("**", Blacklist({(root_ / "docs").native(), (root_ / "src/deep/*").native()}));
  EXPECT_EQ(listed.files, Names({"a.c", "src/x.c"}));
  EXPECT_EQ(listed.directories, Names({"src", "src/deep"}));
  EXPECT_EQ(watch.Opened(), Names({"", "src", "src/deep"}));
}

TEST_F(GlobWalkTest, ScanFindsOnlyAnAllowedRegularFileOfExactlyThatName) {
  const struct {
    std::string name;
    FileAccessPolicy policy;
    Names files;
  } cases[] = {
      {"a.c", subtree_policy_, {"a.c"}},
      {"A.c", subtree_policy_, {}},
      {"src", subtree_policy_, {}},
      {"linkfile", subtree_policy_, {}},
      {"a.c", Blacklist({(root_ / "a.c").native()}), {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/false);
    const CommandResult result = ScanDirectoryForName(root_, c.name, c.policy, kNoDeadline, builder);
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_EQ(Collect(builder, root_), Listed({c.files, {}, {}}));
  }
}

TEST_F(GlobWalkTest, FailuresReturnNothing) {
  const auto open_failure = [](const fs::path& root, const char* what) {
    return "GLOB_FAILED: open search root '" + root.native() + "' failed: " + what;
  };
  const struct {
    fs::path root;
    GlobDeadline deadline;
    int32_t category, code;
    std::string message;
  } cases[] = {
      {root_, GlobDeadline::min(), 1, 5, "GLOB_TIMEOUT: search exceeded timeout_ms"},
      {root_ / "a.c", kNoDeadline, 6, ENOTDIR, open_failure(root_ / "a.c", "Not a directory")},
      // A root is a real path: a link in its place was swapped in after it was resolved.
      {root_ / "linkdir", kNoDeadline, 6, ELOOP, open_failure(root_ / "linkdir", "Too many levels of symbolic links")},
  };
  for (const auto& c : cases) {
    for (const bool scan : {false, true}) {
      SCOPED_TRACE(c.message + (scan ? " (scan)" : " (walk)"));
      GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/false);
      const CommandResult result =
          scan ? ScanDirectoryForName(c.root, "a.c", subtree_policy_, c.deadline, builder)
               : WalkGlob(c.root, GlobPattern("**"), subtree_policy_, c.deadline, kGlobUnlimitedDepth, builder);
      ASSERT_FALSE(result.ok);
      EXPECT_EQ(result.error->category, c.category);
      EXPECT_EQ(result.error->code, c.code);
      EXPECT_EQ(result.error->message, c.message);
      EXPECT_EQ(builder.count(), 0u);
    }
  }
}

// An attacker trades real directories below the root with links to a directory outside it
// while walks run. A walk that went down by name would list the outside files below the root.
TEST(GlobWalkRace, NoWalkListsWhatASwappedInLinkLeadsTo) {
  constexpr int kWalks = 1500;
  // Several pairs, since the time from an entry's listing to its open depends on its place in
  // the directory's order, which the file system picks.
  constexpr int kPairs = 8;
  const quay_test::TempDir temp;
  const fs::path base = fs::canonical(temp.path());
  const fs::path root = base / "root";
  for (int i = 0; i < 4; ++i) temp.WriteFile("outside/secret" + std::to_string(i), "");
  std::vector<std::pair<fs::path, fs::path>> pairs;
  for (int i = 0; i < kPairs; ++i) {
    pairs.emplace_back(temp.WriteFile("root/d" + std::to_string(i) + "/inside", "").parent_path(),
                       root / ("parked" + std::to_string(i)));
    fs::create_directory_symlink("../outside", pairs.back().second);
  }
  // Entries handled between a directory's listing and its open widen the window.
  for (int i = 0; i < 300; ++i) temp.WriteFile("root/filler" + std::to_string(i), "");
  std::atomic<bool> stop{false};
  std::atomic<long> swaps{0};
  std::thread swapper([&] {
    for (size_t i = 0; !stop.load(std::memory_order_relaxed); i = (i + 1) % pairs.size()) {
      const auto& [d, parked] = pairs[i];
      if (::renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, parked.c_str(), RENAME_EXCHANGE) != 0) return;
      swaps.fetch_add(1, std::memory_order_relaxed);
    }
  });
  const GlobPattern pattern("**");
  const FileAccessPolicy policy = Blacklist({});
  int escapes = 0, entered = 0, raced = 0;
  std::string first_escape;
  for (int i = 0; i < kWalks; ++i) {
    GlobResultBuilder builder(kGlobAllTypes, UINT64_MAX, /*return_files_only=*/false);
    if (!WalkGlob(root, pattern, policy, kNoDeadline, kGlobUnlimitedDepth, builder).ok) {
      ADD_FAILURE() << "walk failed";
      break;
    }
    const Listed listed = Collect(builder, root);
    for (const std::string& file : listed.files) {
      if (file.find("secret") != std::string::npos && escapes++ == 0) first_escape = file;
    }
    for (const std::string& directory : listed.directories) {
      // Listed as a directory, yet not entered: the link arrived between listing and open.
      (listed.files.contains(directory + "/inside") ? entered : raced)++;
    }
  }
  stop = true;
  swapper.join();
  std::printf("%d walks, %ld swaps: %d directories entered, %d met a link in their place after listing\n", kWalks,
              swaps.load(), entered, raced);
  EXPECT_EQ(escapes, 0) << "first: " << first_escape;
  EXPECT_GT(swaps.load(), kWalks) << "the swapper stopped";
  EXPECT_GT(entered, 0) << "the race did not run as meant";
  EXPECT_GT(raced, 0) << "the race did not run as meant";
}

}  // namespace
}  // namespace brimo_stack::quay_tools_host::internal
