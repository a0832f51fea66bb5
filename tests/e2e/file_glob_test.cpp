// file_glob against the built host: rg and the host's own walk list the same paths over random
// trees and policies, nothing that rg prints counts unproved, and every refusal has its words.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

#include "support/host_command_fixture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::HostProcess;
using namespace std::chrono_literals;

void WriteScript(const fs::path& path, const std::string& text, fs::perms mode = fs::perms(0755)) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  fs::permissions(path, mode);
}

// rg behind a wrapper that counts its runs in `dir`/runs, so that a test knows which road answered.
fs::path WriteCountingRg(const fs::path& dir) {
  WriteScript(dir / "rg", "#!/bin/sh\necho run >> '" + (dir / "runs").native() + "'\nexec /usr/bin/rg \"$@\"\n");
  return dir / "rg";
}

size_t RunsIn(const fs::path& dir) {
  std::ifstream runs(dir / "runs");
  return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(runs), {}, '\n'));
}

void Initialize(HostProcess& host, json params) {
  const json answer = host.Call({{"method", "internal:initialize"}, {"params", std::move(params)}});
  ASSERT_TRUE(answer.value("ok", false)) << answer.dump();
}

json Glob(HostProcess& host, const json& params) { return host.Call({{"method", "file_glob"}, {"params", params}}); }

json DataOf(const json& answer) {
  return answer.value("ok", false) ? answer["outputs"][0]["data"] : json{{"failed", answer}};
}

std::set<std::string> FilesOf(const json& data) {
  return data.contains("matches") ? data["matches"].value("file", std::set<std::string>()) : std::set<std::string>();
}

std::string Only(const std::set<std::string>& a, const std::set<std::string>& b) {
  std::vector<std::string> rest;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(rest));
  return json(rest).dump();
}

void WriteFiles(const fs::path& dir, std::initializer_list<const char*> files) {
  for (const char* file : files) {
    fs::create_directories((dir / file).parent_path());
    std::ofstream(dir / file) << "x\n";
  }
}

// Below `base`, as the answers name them.
json Under(const fs::path& base, const std::vector<std::string>& relative) {
  json paths = json::array();
  for (const std::string& path : relative) paths.push_back((base / path).native());
  return paths;
}

// A tree of a few hundred entries from one seed: names that globs and the policy read as
// special, ill-formed UTF-8 and line feeds, hidden entries, ignore files that would hide
// everything from a plain rg, and links of every sort, out of the root and in loops included.
struct RandomTree {
  std::vector<fs::path> dirs{""};  // relative; "" is the root
  std::vector<fs::path> files;
};

std::string UpTo(const fs::path& parent, const fs::path& target) {
  std::string up;
  for (auto it = parent.begin(); it != parent.end(); ++it) up += "../";
  return up + target.native();
}

RandomTree BuildRandomTree(const fs::path& root, std::mt19937& rng) {
  static const std::vector<std::string> kStems = {"a",      "b",       "src",          "x",         "lib",
                                                  "[ab]",   "{x,y}",   "!n",           "sp ace",    "back\\slash",
                                                  "\xc3\xa9", "\xff\xfe", "new\nline", "UP",        "etc"};
  static const std::vector<std::string> kExtensions = {".c", ".h", ".txt", "", ".C"};
  static const std::vector<std::pair<std::string, std::string>> kIgnoreFiles = {
      {".gitignore", "*\n"}, {".ignore", "*.c\n"}, {".rgignore", "**\n"}};
  const auto pick = [&](const auto& list) -> const auto& { return list[rng() % list.size()]; };
  RandomTree tree;
  fs::create_directories(root);
  for (int i = 0; i < 320; ++i) {
    const fs::path parent = pick(tree.dirs);
    if (std::distance(parent.begin(), parent.end()) >= 6) continue;
    const fs::path name = (rng() % 6 == 0 ? "." : "") + pick(kStems) + pick(kExtensions);
    const fs::path relative = parent / name, full = root / relative;
    if (fs::symlink_status(full).type() != fs::file_type::not_found) continue;
    const unsigned kind = rng() % 20;
    if (kind < 4) {
      fs::create_directory(full);
      tree.dirs.push_back(relative);
    } else if (kind < 6) {
      const auto& [file, text] = pick(kIgnoreFiles);
      std::ofstream(root / parent / file) << text;
    } else if (kind < 9) {
      const unsigned sort = rng() % 6;
      const std::string target =
          sort == 0 && !tree.files.empty() ? UpTo(parent, pick(tree.files))
          : sort == 1                      ? UpTo(parent, pick(tree.dirs))
          : sort == 2                      ? "missing-target"
          : sort == 3                      ? name.native()
          : sort == 4                      ? UpTo(parent, "../outside")
                                           : "/usr/include";
      fs::create_symlink(target, full);
    } else if (kind < 10) {
      ::mkfifo(full.c_str(), 0600);
    } else {
      std::ofstream(full) << "x\n";
      tree.files.push_back(relative);
    }
  }
  // A chain deeper than the default depth.
  fs::path deep = "deep";
  for (int level = 1; level <= 13; ++level, deep /= "d") WriteFiles(root / deep, {"z.c"});
  return tree;
}

// What every tree holds for the checks that the comparison itself cannot make.
void PlantKnownEntries(const fs::path& root) {
  WriteFiles(root, {"plain/in.c", "plain/sub/in.c", "plain/.hidden.c", "plain/.hdir/in.c", "../outside/in.c"});
  fs::create_symlink("in.c", root / "plain/link.c");
  fs::create_symlink("sub", root / "plain/dirlink");
  std::ofstream(root / ".gitignore") << "*\n";
  std::ofstream(root / ".ignore") << "*.c\n";
  fs::create_directories(root / "../outside/sub");
}

// A whitelist that covers the root, and one to three blacklist entries of the sorts that the
// rg road hands to rg as exclusion globs and of the sorts that only the host can decide. Names
// are picked where a glob that reaches too far would show: a top-level directory whose name
// recurs deeper, a top-level file for "<root>/*/<name>".
json RandomPolicy(std::mt19937& rng, const fs::path& root, const RandomTree& tree) {
  const auto pick = [&](const std::vector<fs::path>& list, const std::vector<fs::path>& fallback) -> fs::path {
    const auto& from = list.empty() ? fallback : list;
    return from.empty() ? fs::path("none") : from[rng() % from.size()];
  };
  // Request text must be UTF-8, so names with ill-formed bytes stay out of the lists.
  const auto usable = [](const fs::path& path) { return path.native().find('\xff') == std::string::npos; };
  const auto top = [](const fs::path& path) { return !path.has_parent_path(); };
  std::vector<fs::path> subdirs, recurring_top_dirs, top_files;
  std::copy_if(tree.dirs.begin() + 1, tree.dirs.end(), std::back_inserter(subdirs), usable);
  std::copy_if(tree.files.begin(), tree.files.end(), std::back_inserter(top_files),
               [&](const fs::path& file) { return usable(file) && top(file); });
  for (const fs::path& dir : subdirs) {
    if (!top(dir)) continue;
    const auto deeper = [&](const fs::path& other) { return !top(other) && other.filename() == dir; };
    if (std::any_of(tree.dirs.begin(), tree.dirs.end(), deeper) ||
        std::any_of(tree.files.begin(), tree.files.end(), deeper)) {
      recurring_top_dirs.push_back(dir);
    }
  }
  const std::string r = root.native();
  json white = rng() % 2 ? json{r, r + "/*"} : json{root.parent_path().native() + "/*"};
  json black = json::array();
  for (unsigned n = 1 + rng() % 3; n > 0; --n) {
    switch (rng() % 6) {
      case 0: black.push_back(r + "/" + pick(subdirs, {}).native() + "/*"); break;
      case 1: black.push_back(r + "/" + pick(recurring_top_dirs, subdirs).native()); break;
      case 2: black.push_back("*.txt"); break;
      case 3: black.push_back("*.H"); break;
      case 4: black.push_back(r + "/*/" + pick(top_files, {}).native()); break;
      default: {
        // A directory that the whitelist names, inside a blacklisted one, is open again.
        const fs::path dir = pick(subdirs, {});
        black.push_back(r + "/" + dir.native() + "/*");
        for (const fs::path& inner : subdirs) {
          if (inner.parent_path() != dir) continue;
          white.push_back(r + "/" + inner.native());
          white.push_back(r + "/" + inner.native() + "/*");
        }
      }
    }
  }
  return {{"whitelist_patterns", white}, {"blacklist_patterns", black}, {"case_sensitive", rng() % 3 == 0}};
}

class FileGlobTest : public quay_test::HostCommandTest {
 protected:
  void SetUp() override {
    Initialize(host_, {{"rg_executable", WriteCountingRg(root_ / "tools").native()}});
    WriteScript(P("tools/not-executable"), "#!/bin/sh\n", fs::perms(0644));
    Initialize(no_exec_host_, {{"rg_executable", P("tools/not-executable")}});
  }
  // host_ runs rg; these two walk: one was never told of an rg, one cannot execute the file it was given.
  HostProcess walk_host_ = HostProcess::WithConfig();
  HostProcess no_exec_host_ = HostProcess::WithConfig();
};

TEST_F(FileGlobTest, RgAndTheWalkListTheSameFilesOverRandomTreesAndPolicies) {
  const struct {
    std::string pattern;
    json max_depth;
    bool runs_rg;  // no fixed head, so rg runs whatever the tree holds
  } rows[] = {{"**/*.c", nullptr, true},     {"**/*", nullptr, true},         {"**", nullptr, true},
              {"**/.*", nullptr, true},      {"**/.*/**", nullptr, true},     {"*/*.h", nullptr, true},
              {"*/*/*", nullptr, true},      {"**/?.c", nullptr, true},       {"**/??.c", nullptr, true},
              {"**/[ab].c", nullptr, true},  {"**/{x,y}.C", nullptr, true},   {"**/*.C", nullptr, true},
              {"**/new*", nullptr, true},    {"**/a/**", nullptr, true},      {"**/*.c", 3, true},
              {"**", 1, true},               {"**/*.c", 12, true},            {"deep/**/z.c", nullptr, false},
              {"deep/*/*/*/z.c", nullptr, false}, {"plain/**/*.c", nullptr, false}, {"x/**", nullptr, false}};
  size_t non_empty = 0, reduced_by_policy = 0;
  for (const uint32_t seed : {1u, 2u, 3u, 5u, 8u, 13u, 21u, 34u}) {
    quay_test::TempDir dir;
    const fs::path root = fs::canonical(dir.path()) / "tree";
    std::mt19937 rng(seed);
    const RandomTree tree = BuildRandomTree(root, rng);
    PlantKnownEntries(root);
    const json policy = RandomPolicy(rng, root, tree);
    for (const auto& row : rows) {
      json params = {{"pattern", row.pattern}, {"path", root.native()}, {"type", "file"}, {"policy", policy}};
      if (!row.max_depth.is_null()) params["max_depth"] = row.max_depth;
      const std::string where = "seed " + std::to_string(seed) + ", " + params.dump();
      const size_t runs_before = RunsIn(root_ / "tools");
      const json by_rg = DataOf(Glob(host_, params));
      ASSERT_TRUE(by_rg.contains("matches")) << where << "\n" << by_rg.dump();
      if (row.runs_rg) {
        EXPECT_EQ(RunsIn(root_ / "tools"), runs_before + 1) << where;
      }
      for (HostProcess* walker : {&walk_host_, &no_exec_host_}) {
        const json by_walk = DataOf(Glob(*walker, params));
        EXPECT_EQ(by_rg, by_walk) << where << "\nonly by rg: " << Only(FilesOf(by_rg), FilesOf(by_walk))
                                  << "\nonly by the walk: " << Only(FilesOf(by_walk), FilesOf(by_rg));
      }
      non_empty += FilesOf(by_rg).empty() ? 0 : 1;
      for (const std::string& path : FilesOf(by_rg)) ASSERT_EQ(path.rfind(root.native() + "/", 0), 0u) << where;
      if (row.pattern == "**/*") {
        params["policy"] = json::object();
        const std::set<std::string> all = FilesOf(DataOf(Glob(host_, params))), allowed = FilesOf(by_rg);
        EXPECT_TRUE(std::includes(all.begin(), all.end(), allowed.begin(), allowed.end())) << where;
        reduced_by_policy += allowed.size() < all.size() ? 1 : 0;
      }
      if (row.pattern == "**/*.c" && row.max_depth.is_null()) {
        const std::set<std::string> found = FilesOf(by_rg);
        for (const char* present : {"plain/in.c", "plain/sub/in.c"}) {
          EXPECT_TRUE(found.count((root / present).native())) << where << " lacks " << present;
        }
        for (const char* absent : {"plain/.hidden.c", "plain/.hdir/in.c", "plain/link.c", "plain/dirlink/in.c"}) {
          EXPECT_FALSE(found.count((root / absent).native())) << where << " lists " << absent;
        }
      }
    }
  }
  EXPECT_GT(non_empty, 100u);
  EXPECT_GE(reduced_by_policy, 6u);
}

// rg hears of the blacklist as exclusion globs, which must keep it from no file that the policy
// allows: a name recurring deeper, a name right below the root, a directory the whitelist reopens.
TEST_F(FileGlobTest, ExclusionGlobsHideNothingThatThePolicyAllows) {
  WriteFiles(root_, {"t/x/a.c", "t/y/x/b.c", "t/name.c", "t/y/name.c", "t/d1/open/o.c", "t/d1/shut/s.c"});
  const struct {
    std::vector<std::string> blacklist, whitelist, files;
  } rows[] = {
      {{"t/x"}, {"t", "t/*"}, {"t/d1/open/o.c", "t/d1/shut/s.c", "t/name.c", "t/y/name.c", "t/y/x/b.c"}},
      {{"t/*/name.c"}, {"t", "t/*"}, {"t/d1/open/o.c", "t/d1/shut/s.c", "t/name.c", "t/x/a.c", "t/y/x/b.c"}},
      {{"t/d1/*"}, {"t", "t/*", "t/d1/open", "t/d1/open/*"},
       {"t/d1/open/o.c", "t/name.c", "t/x/a.c", "t/y/name.c", "t/y/x/b.c"}},
  };
  for (const auto& row : rows) {
    const json policy = {{"whitelist_patterns", Under(root_, row.whitelist)},
                         {"blacklist_patterns", Under(root_, row.blacklist)}};
    const json params = {{"pattern", "**/*.c"}, {"path", P("t")}, {"type", "file"}, {"policy", policy}};
    const size_t runs_before = RunsIn(root_ / "tools");
    EXPECT_EQ(DataOf(Glob(host_, params))["matches"]["file"], Under(root_, row.files)) << policy.dump();
    EXPECT_EQ(RunsIn(root_ / "tools"), runs_before + 1);
    EXPECT_EQ(DataOf(Glob(walk_host_, params))["matches"]["file"], Under(root_, row.files)) << policy.dump();
  }
}

// Root reads through any mode, so the host runs as nobody to meet unreadable directories: the
// walk, rg and the scan for one name list them as empty, a search root among them.
TEST(FileGlobUnprivileged, UnreadableDirectoriesListAsEmptyOnBothRoads) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  WriteFiles(root, {"tree/open/a.c", "tree/open/deeper/d.c", "tree/closed/b.c", "tree/passable/c.c"});
  const fs::path tools = root / "tools";
  WriteCountingRg(tools);
  for (const char* path : {"", "tree", "tree/open", "tree/open/deeper"}) ::chmod((root / path).c_str(), 0755);
  ::chmod(tools.c_str(), 0777);
  ::chmod((root / "tree/closed").c_str(), 0);
  ::chmod((root / "tree/passable").c_str(), 0311);  // entered, never listed
  const auto as_nobody = [] {
    return HostProcess({"--reuid=65534", "--regid=65534", "--clear-groups", QUAY_TOOLS_HOST_BINARY,
                        "--brimo-stack-host-config", quay_test::DefaultLaunchConfig()},
                       {}, "", false, "setpriv");
  };
  HostProcess rg_host = as_nobody(), walk_host = as_nobody();
  Initialize(rg_host, {{"rg_executable", (tools / "rg").native()}});
  const struct {
    const char *root, *pattern, *type;
    std::vector<std::string> listed;
    bool through_rg;  // rg can enter the root
  } rows[] = {
      {"tree", "**/*.c", "file", {"tree/open/a.c", "tree/open/deeper/d.c"}, true},
      {"tree/closed", "**/*.c", "file", {}, false},
      {"tree/passable", "**/*.c", "file", {}, true},
      {"tree/closed", "b.c", "file", {}, false},
      {"tree", "**", "directory", {"tree/closed", "tree/open", "tree/open/deeper", "tree/passable"}, false},
  };
  for (const auto& row : rows) {
    const size_t runs_before = RunsIn(tools);
    const json params = {{"pattern", row.pattern}, {"path", (root / row.root).native()}, {"type", row.type}};
    const json want = {{"matches", {{row.type, Under(root, row.listed)}}}, {"truncated", {{row.type, false}}}};
    EXPECT_EQ(DataOf(Glob(rg_host, params)), want) << params.dump();
    if (row.through_rg) {
      EXPECT_EQ(RunsIn(tools), runs_before + 1) << params.dump();
    }
    EXPECT_EQ(DataOf(Glob(walk_host, params)), want) << params.dump();
  }
}

TEST_F(FileGlobTest, RefusalsCarryTheirWords) {
  dir_.WriteFile("src/a.c", "x\n");
  ASSERT_EQ(::mkfifo(P("fifo").c_str(), 0600), 0);
  const struct {
    json params;
    std::string message;
  } rows[] = {
      {{{"pattern", ""}, {"type", "dir"}, {"max_results", 0}}, "pattern is empty"},
      {{{"pattern", "*"}, {"type", "dir"}, {"max_results", 0}}, "type must be file, directory, or symlink"},
      {{{"pattern", "*"}, {"type", ""}}, "type must be file, directory, or symlink"},
      {{{"pattern", "*"}, {"max_results", 0}, {"max_depth", 0}}, "max_results must be greater than 0"},
      {{{"pattern", "*"}, {"max_depth", 0}}, "max_depth must be between 1 and 100"},
      {{{"pattern", "*"}, {"max_depth", 101}, {"timeout_ms", 4611686018428}}, "max_depth must be between 1 and 100"},
      {{{"pattern", "*"}, {"timeout_ms", 4611686018428}}, "timeout_ms is too large"},
      {{{"pattern", "*"}, {"path", P("missing")}}, "FILE_NOT_FOUND: " + P("missing")},
      {{{"pattern", "*"}, {"path", P("fifo")}}, "INVALID_FILE_PATH: glob search root is not a file or directory"},
      {{{"pattern", "*"}, {"path", P("src")}, {"policy", {{"whitelist_patterns", {P("other/*")}}}}},
       "FILE_ACCESS_DENIED: did not match any whitelist pattern"},
      {{{"pattern", "**/*.c"}, {"path", P("src")}, {"type", "file"}, {"policy", {{"blacklist_patterns", {P("src")}}}}},
       "FILE_ACCESS_DENIED: matched blacklist pattern: " + P("src")},
  };
  for (const auto& row : rows) EXPECT_EQ(Refusal("file_glob", row.params, 7, 1), row.message) << row.params.dump();
  // The edges that pass, and what return_files_only never reads.
  for (const json& params : {json{{"pattern", "*"}, {"max_depth", 100}, {"timeout_ms", 4611686018427}},
                             json{{"pattern", "*"}, {"max_depth", 1}, {"timeout_ms", 0}, {"max_results", 1}},
                             json{{"pattern", "*"}, {"return_files_only", true}, {"max_depth", 0}, {"type", "dir"}}}) {
    json with_root = params;
    with_root["path"] = P("src");
    EXPECT_TRUE(Glob(host_, with_root).value("ok", false)) << params.dump();
  }
}

TEST_F(FileGlobTest, NoPatternOrLinkLeadsOutOfTheRoot) {
  WriteFiles(root_, {"tree/etc/passwd.c", "tree/sub/a.c", "outside/in.c", "outside/etc/passwd.c", "x.c"});
  fs::create_symlink(P("outside"), P("tree/outlink"));
  fs::create_symlink("../outside", P("tree/sub/uplink"));
  const json policy = {{"whitelist_patterns", {P("tree"), P("tree/*")}}};
  for (const char* pattern : {"/etc/*", "/**/*.c", "../*", "../**/*.c", "../outside/*.c", "sub/../../*.c", "**/../*.c",
                              "..", "\\..\\*.c", "**/outlink/*.c", "outlink/**", "sub/uplink/*.c", "./../*.c"}) {
    for (const json& type : {json(nullptr), json("file")}) {
      json params = {{"pattern", pattern}, {"path", P("tree")}, {"policy", policy}};
      if (!type.is_null()) params["type"] = type;
      for (HostProcess* host : {&host_, &walk_host_}) {
        const json data = DataOf(Glob(*host, params));
        ASSERT_TRUE(data.contains("matches")) << params.dump() << "\n" << data.dump();
        for (const auto& [kind, list] : data["matches"].items()) EXPECT_EQ(list, json::array()) << params.dump();
      }
    }
  }
  // A link as the root is listed itself when its name matches, and never searched through.
  const json link_root = {{"pattern", "*"}, {"path", P("tree/outlink")}};
  EXPECT_EQ(DataOf(Glob(host_, link_root))["matches"],
            json({{"file", json::array()}, {"directory", json::array()}, {"symlink", {P("tree/outlink")}}}));
  EXPECT_EQ(DataOf(Glob(host_, {{"pattern", "**/*.c"}, {"path", P("tree/outlink")}, {"type", "file"}})),
            json({{"matches", {{"file", json::array()}}}, {"truncated", {{"file", false}}}}));
}

TEST_F(FileGlobTest, ResultShapesLimitsAndNewestFirst) {
  WriteFiles(root_, {"s/a.c", "s/sub/b.c", "s/sub/c.txt"});
  fs::create_directory(P("s/d.c"));
  fs::create_symlink("a.c", P("s/ln.c"));
  fs::create_symlink("missing", P("s/gone.c"));  // a broken link never counts
  const auto now = fs::file_time_type::clock::now();
  for (const auto& [path, age] : {std::pair{"s/a.c", 300s}, {"s/sub/b.c", 100s}, {"s/d.c", 0s}}) {
    fs::last_write_time(P(path), now - age);
  }
  const std::string a = P("s/a.c"), b = P("s/sub/b.c"), d = P("s/d.c"), ln = P("s/ln.c");

  const json all_kinds = {{"pattern", "**/*.c"}, {"path", P("s")}};
  const json full = DataOf(Glob(host_, all_kinds));
  EXPECT_EQ(full, json({{"matches", {{"file", {a, b}}, {"directory", {d}}, {"symlink", {ln}}}},
                        {"truncated", {{"file", false}, {"directory", false}, {"symlink", false}}}}));
  EXPECT_EQ(DataOf(Glob(host_, {{"pattern", "**"}, {"path", P("s")}, {"type", "directory"}})),
            json({{"matches", {{"directory", {d, P("s/sub")}}}}, {"truncated", {{"directory", false}}}}));

  // A cap drops entries in walk order; a kind's flag says that this kind lost one, and only then.
  for (const int cap : {1, 2, 3, 4}) {
    json params = all_kinds;
    params["max_results"] = cap;
    const json data = DataOf(Glob(host_, params));
    size_t kept = 0;
    for (const char* kind : {"file", "directory", "symlink"}) {
      const std::set<std::string> got = data["matches"][kind], all = full["matches"][kind];
      kept += got.size();
      EXPECT_TRUE(std::includes(all.begin(), all.end(), got.begin(), got.end())) << data.dump();
      EXPECT_EQ(data["truncated"][kind], got.size() < all.size()) << cap << " " << data.dump();
    }
    EXPECT_EQ(kept, static_cast<size_t>(cap)) << data.dump();
  }
  for (HostProcess* host : {&host_, &walk_host_}) {
    const json data =
        DataOf(Glob(*host, {{"pattern", "**/*.c"}, {"path", P("s")}, {"type", "file"}, {"max_results", 1}}));
    EXPECT_EQ(data["truncated"], json({{"file", true}}));
    ASSERT_EQ(data["matches"]["file"].size(), 1u) << data.dump();
    EXPECT_TRUE(data["matches"]["file"][0] == a || data["matches"]["file"][0] == b) << data.dump();
  }

  // Newest first by the time behind a link; within one second files come before links.
  EXPECT_EQ(DataOf(Glob(host_, {{"pattern", "**/*.c"}, {"path", P("s")}, {"return_files_only", true}})),
            json({{"files", {d, b, a, ln}}}));
  const json two = DataOf(Glob(host_, {{"pattern", "**/*.c"}, {"path", P("s")}, {"return_files_only", true},
                                       {"max_results", 2}}));
  EXPECT_EQ(two.size(), 1u) << two.dump();  // no truncated key
  EXPECT_EQ(two["files"].size(), 2u) << two.dump();
}

TEST_F(FileGlobTest, AResultFileTakesTheWholeAnswer) {
  Initialize(host_, {{"rg_executable", (root_ / "tools/rg").native()}, {"install_dir", P("sandbox_envs_dir")}});
  fs::create_directories(root_ / "brimo_stack");
  dir_.WriteFile("src/a.c", "x\n");
  json params = {{"pattern", "**/*.c"}, {"path", P("src")}, {"type", "file"}};
  const json direct = Glob(host_, params);
  ASSERT_TRUE(direct.value("ok", false)) << direct.dump();
  params["result_file"] = P("brimo_stack/out.json");
  EXPECT_EQ(Glob(host_, params), json({{"ok", true}}));
  EXPECT_EQ(quay_test::ReadWholeFile(root_ / "brimo_stack/out.json"), direct.dump());
}

// Stand-ins for rg: whatever one prints counts only once the host has proved it, and its
// failures come back as failures, with no fallback to the walk.
TEST_F(FileGlobTest, WhatAnRgStandInPrintsCountsOnlyWhenProved) {
  WriteFiles(root_, {"tree/a.c", "tree/sub/c.c", "tree/sub/d.c", "tree/sub/e.c", "tree/sub/f.txt", "tree/secret/s.c",
                     "x.c"});
  fs::create_directory(P("tree/dir.c"));
  ASSERT_EQ(::mkfifo(P("tree/fifo.c").c_str(), 0600), 0);
  fs::create_symlink("sub", P("tree/linkdir"));
  // What the verifier decides alone is proved below the command; these need the command's
  // wiring or what only a real tree shows.
  std::string printed;
  for (const std::string& record : std::vector<std::string>{"a.c", "sub/c.c", "./sub/d.c", "", "../x.c", P("x.c"),
                                                             P("tree/a.c"), "linkdir/e.c", "sub/f.txt", "secret/s.c",
                                                             "dir.c", "fifo.c", "sub//c.c/.."}) {
    printed += record + '\0';
  }
  std::ofstream(P("tools/printed"), std::ios::binary) << printed;
  WriteScript(P("tools/stand-in"), "#!/bin/sh\nexec cat '" + P("tools/printed") + "'\n");
  Initialize(host_, {{"rg_executable", P("tools/stand-in")}});
  const json data = DataOf(Glob(host_, {{"pattern", "**/*.c"}, {"path", P("tree")}, {"type", "file"},
                                        {"policy", {{"blacklist_patterns", {P("tree/secret/*")}}}}}));
  EXPECT_EQ(data, json({{"matches", {{"file", Under(root_, {"tree/a.c", "tree/sub/c.c", "tree/sub/d.c"})}}},
                        {"truncated", {{"file", false}}}}));
}

TEST_F(FileGlobTest, RgFailuresAndTimeLimitsAreAnswered) {
  dir_.WriteFile("tree/a.c", "x\n");
  const struct {
    std::string script;
    int category, code;
    std::string message;
  } rows[] = {
      {"sleep 30", 1, 5, "GLOB_TIMEOUT: search exceeded timeout_ms"},
      {"echo 'bad glob: oops' >&2; exit 2", 7, 1, "GLOB_FAILED: bad glob: oops"},
      {"printf 'a.c'", 3, 0, "GLOB_FAILED: rg returned an unterminated path"},
      {"head -c 4194305 /dev/zero | tr '\\0' a", 3, 0, "GLOB_FAILED: rg returned an oversized unterminated path"},
  };
  for (const auto& row : rows) {
    WriteScript(P("tools/stand-in"), "#!/bin/sh\n" + row.script + "\n");
    Initialize(host_, {{"rg_executable", P("tools/stand-in")}});
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(Refusal("file_glob", {{"pattern", "**/*.c"}, {"path", P("tree")}, {"type", "file"}, {"timeout_ms", 500}},
                      row.category, row.code),
              row.message)
        << row.script;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s) << row.script;
  }
  EXPECT_EQ(Call("ping", json::object()), json({{"ok", true}}));
}

}  // namespace
