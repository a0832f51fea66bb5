// file_export through the built binary: the success road and every refusal of the destination.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/host_process.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using quay_test::HostProcess;
using quay_test::ReadWholeFile;

// Every entry below `top`, links not followed, so anything written through a link shows up
// at the link target's own place.
std::set<std::string> ListTree(const fs::path& top) {
  std::set<std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(top)) {
    entries.insert(entry.path().native());
  }
  return entries;
}

bool IsAtOrBelow(const std::string& path, const fs::path& root) {
  const std::string& r = root.native();
  return path == r || (path.size() > r.size() && path.compare(0, r.size(), r) == 0 && path[r.size()] == '/');
}

struct Layout {
  fs::path tmp;      // the child's TMPDIR
  fs::path root;     // tmp/qz/to, the trusted export root; tmp/qz is the parent's and exists
  fs::path work;     // where the sources live
  fs::path outside;  // what links point to
};

class FileExport : public testing::Test {
 protected:
  void SetUp() override {
    layout_.tmp = temp_.path() / "tmp";
    layout_.root = layout_.tmp / "qz" / "to";
    layout_.work = temp_.path() / "work";
    layout_.outside = temp_.path() / "outside";
    fs::create_directories(layout_.tmp / "qz");
    fs::create_directories(layout_.work);
    fs::create_directories(layout_.outside);
    source_ = temp_.WriteFile("work/source.txt", "payload");
  }

  // The child's TMPDIR replaces an inherited one, so the export root lies in this test's directory.
  HostProcess& Host(const std::string& install_dir = "") {
    if (!host_.has_value()) {
      host_.emplace(std::vector<std::string>{"--brimo-stack-host-config", quay_test::DefaultLaunchConfig()},
                    std::vector<std::string>{"TMPDIR=" + layout_.tmp.native()});
      const json initialized =
          host_->Call({{"method", "internal:initialize"}, {"params", {{"install_dir", install_dir}}}});
      EXPECT_EQ(initialized.value("ok", false), true) << initialized.dump();
    }
    return *host_;
  }

  json Export(const std::string& path, const std::string& export_path, const json& policy = json::object()) {
    return Host().Call({{"method", "file_export"},
                        {"params",
                         {{"base_cwd", layout_.work.native()},
                          {"path", path},
                          {"export_path", export_path},
                          {"policy", policy}}}});
  }

  static json Data(const json& response) { return response.at("outputs").at(0).at("data"); }

  quay_test::TempDir temp_;
  Layout layout_;
  fs::path source_;
  std::optional<HostProcess> host_;
};

TEST_F(FileExport, CopiesIntoNewDirectoriesAndReportsSizePathAndUrl) {
  ASSERT_EQ(layout_.root.native().find_first_not_of(
                "/ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~"),
            std::string::npos)
      << "the temporary directory's name would need encoding itself";
  const struct {
    std::string source;       // below work/
    std::string content;
    std::string export_path;  // below the root
    std::string local_path;   // below the root, as answered
    std::string url_path;     // below the root, as in the URL
  } cases[] = {
      {"a b.txt", "hello world", "sub/dir/a b.txt", "sub/dir/a b.txt", "sub/dir/a%20b.txt"},
      {"\xc3\xa9t\xc3\xa9.txt", "x", "\xc3\xa9t\xc3\xa9.txt", "\xc3\xa9t\xc3\xa9.txt", "%C3%A9t%C3%A9.txt"},
      {"empty.txt", "", "empty.txt", "empty.txt", "empty.txt"},
      // ".." that comes back into the root is allowed, and creates nothing on the way.
      {"back.txt", "back", "../to/x/../back.txt", "back.txt", "back.txt"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.export_path);
    temp_.WriteFile("work/" + c.source, c.content);
    const json response = Export(c.source, layout_.root.native() + "/" + c.export_path);
    ASSERT_TRUE(response.value("ok", false)) << response.dump();
    EXPECT_EQ(Data(response), json({{"local_path", (layout_.root / c.local_path).native()},
                                    {"size", c.content.size()},
                                    {"url", "file://" + layout_.root.native() + "/" + c.url_path}}));
    EXPECT_EQ(ReadWholeFile(layout_.root / c.local_path), c.content);
    EXPECT_EQ(ReadWholeFile(layout_.work / c.source), c.content);
  }
  EXPECT_FALSE(fs::exists(layout_.root / "x"));
}

// Systems that keep temporary files elsewhere link their TMPDIR there: links above the runtime
// artifact root are the system's and are followed; from that root down none is.
TEST_F(FileExport, TempDirectoryReachedThroughALinkWorks) {
  const fs::path real_tmp = temp_.path() / "real_tmp";
  fs::create_directories(real_tmp / "qz");
  layout_.tmp = temp_.path() / "tmp_link";
  fs::create_directory_symlink(real_tmp, layout_.tmp);
  layout_.root = layout_.tmp / "qz" / "to";

  const json response = Export("source.txt", (layout_.root / "sub" / "linked.txt").native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("local_path"), (layout_.root / "sub" / "linked.txt").native());
  EXPECT_EQ(ReadWholeFile(real_tmp / "qz" / "to" / "sub" / "linked.txt"), "payload");
  EXPECT_EQ(ListTree(real_tmp / "qz" / "to" / "sub"), std::set<std::string>{(real_tmp / "qz/to/sub/linked.txt").native()});
}

// The runtime artifact root above the export root is the parent's: the host neither creates it
// nor looks at it, so a link there is followed, and without it the export root can't be made.
TEST_F(FileExport, NothingAboveTheExportRootIsCreatedOrChecked) {
  fs::remove(layout_.tmp / "qz");
  const json missing = Export("source.txt", (layout_.root / "a.txt").native());
  EXPECT_EQ(missing["error"],
            json({{"category", 6},
                  {"code", ENOENT},
                  {"message", "EXPORT_FILE_FAILED: create parent directory failed: No such file or directory"}}));
  EXPECT_TRUE(fs::is_empty(layout_.tmp));

  fs::create_directories(layout_.outside / "artifacts");
  fs::create_directory_symlink(layout_.outside / "artifacts", layout_.tmp / "qz");
  const json linked = Export("source.txt", (layout_.root / "a.txt").native());
  ASSERT_TRUE(linked.value("ok", false)) << linked.dump();
  EXPECT_EQ(ReadWholeFile(layout_.outside / "artifacts/to/a.txt"), "payload");
}

TEST_F(FileExport, ExistingExportIsReplacedByRenameNotRewritten) {
  const fs::path target = layout_.root / "report.txt";
  fs::create_directories(layout_.root);
  temp_.WriteFile("tmp/qz/to/report.txt", "old content that is longer");
  // A second name of the old file: an in-place write would change what it shows.
  fs::create_hard_link(target, layout_.tmp / "old_report.txt");

  const json response = Export("source.txt", target.native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("size"), 7);
  EXPECT_EQ(ReadWholeFile(target), "payload");
  EXPECT_EQ(ReadWholeFile(layout_.tmp / "old_report.txt"), "old content that is longer");
  EXPECT_EQ(ListTree(layout_.root), std::set<std::string>{target.native()}) << "a temporary file was left";
}

TEST_F(FileExport, FileThatAlreadyIsTheTargetKeepsItsContent) {
  const fs::path target = temp_.WriteFile("tmp/qz/to/self.txt", "same bytes");
  const json response = Export(target.native(), target.native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("size"), 10);
  EXPECT_EQ(ReadWholeFile(target), "same bytes");
}

TEST_F(FileExport, ProfileInstallDirMovesTheRootBesideIt) {
  const fs::path profile_root = temp_.path() / "profile" / "brimo_stack" / "to";
  fs::create_directories(temp_.path() / "profile" / "sandbox_envs_dir");
  fs::create_directories(temp_.path() / "profile" / "brimo_stack");
  Host((temp_.path() / "profile" / "sandbox_envs_dir").native() + "/");

  const json inside = Export("source.txt", (profile_root / "a.txt").native());
  ASSERT_TRUE(inside.value("ok", false)) << inside.dump();
  EXPECT_EQ(ReadWholeFile(profile_root / "a.txt"), "payload");

  const json temp_root = Export("source.txt", (layout_.root / "a.txt").native());
  ASSERT_FALSE(temp_root.value("ok", true));
  EXPECT_EQ(temp_root["error"]["message"],
            "INVALID_EXPORT_PATH: export_path is outside trusted export root: " + (layout_.root / "a.txt").native());
  EXPECT_FALSE(fs::exists(layout_.root));
}

TEST_F(FileExport, RefusedProfileInstallDirIsTheAnswer) {
  Host("relative/sandbox_envs_dir");
  const json response = Export("source.txt", (layout_.root / "a.txt").native());
  ASSERT_FALSE(response.value("ok", true));
  EXPECT_EQ(response["error"],
            json({{"category", 7},
                  {"code", 1},
                  {"message", "Profile install_dir must be an absolute path without parent traversal"}}));
}

// The system would cut the directory at the NUL, and no export path could lie below a root
// that holds one: the call is refused and the earlier install_dir stays.
TEST_F(FileExport, InstallDirWithANulIsRefusedAndTheEarlierOneStays) {
  const std::string install_dir("/opt/i\0/sandbox_envs_dir", 24);
  const json refused = Host().Call({{"method", "internal:initialize"}, {"params", {{"install_dir", install_dir}}}});
  EXPECT_EQ(refused["error"], json({{"category", 7}, {"code", 1}, {"message", "INVALID_FILE_PATH: path contains a NUL character"}}));
  const json exported = Export("source.txt", (layout_.root / "a.txt").native());
  EXPECT_TRUE(exported.value("ok", false)) << exported.dump();
}

// One refusal: what stands on disk first, what is asked for, and the answer in full. In the
// texts, {root}, {tmp} and {outside} stand for the layout's paths, {nul} for a NUL byte, and
// {beyond}, {linked} and {is_link} for the heads of the refusals outside the root, through a
// link and at a link.
struct RefusalCase {
  const char* name;
  std::vector<std::string> setup;  // "dir P", "file P" or "link P T"
  const char* export_path;
  int category;
  int code;
  const char* message;
};

class FileExportRefusal : public FileExport, public testing::WithParamInterface<RefusalCase> {
 protected:
  std::string Expand(std::string text) const {
    const std::pair<std::string, std::string> names[] = {
        {"{root}", layout_.root.native()},
        {"{tmp}", layout_.tmp.native()},
        {"{outside}", layout_.outside.native()},
        {"{nul}", std::string(1, '\0')},
        {"{beyond}", "INVALID_EXPORT_PATH: export_path is outside trusted export root: "},
        {"{linked}", "INVALID_EXPORT_PATH: export path contains a reparse point: "},
        {"{is_link}", "INVALID_EXPORT_PATH: export path is a reparse point: "}};
    for (const auto& [name, value] : names) {
      for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
        text.replace(at, name.size(), value);
      }
    }
    return text;
  }

  void Build(const std::string& step) {
    std::istringstream words(Expand(step));
    std::string verb, path, target;
    words >> verb >> path >> target;
    if (verb == "dir") {
      fs::create_directories(path);
    } else if (verb == "file") {
      temp_.WriteFile(path, "not a directory");
    } else {
      fs::create_directories(fs::path(path).parent_path());
      fs::create_symlink(target, path);
    }
  }
};

TEST_P(FileExportRefusal, AnswersItsMessageAndWritesNothingOutsideTheRoot) {
  const RefusalCase& c = GetParam();
  temp_.WriteFile(layout_.outside.native() + "/victim.txt", "victim");
  for (const std::string& step : c.setup) {
    Build(step);
  }
  const std::set<std::string> before = ListTree(temp_.path());

  const json response = Export("source.txt", Expand(c.export_path));
  ASSERT_FALSE(response.value("ok", true)) << response.dump();
  EXPECT_EQ(response["error"], json({{"category", c.category}, {"code", c.code}, {"message", Expand(c.message)}}));

  for (const std::string& entry : ListTree(temp_.path())) {
    if (before.count(entry) == 0) {
      EXPECT_TRUE(IsAtOrBelow(entry, layout_.root)) << "created outside the root: " << entry;
    }
  }
  EXPECT_EQ(ReadWholeFile(layout_.outside / "victim.txt"), "victim");
  EXPECT_FALSE(fs::exists(layout_.outside / "new.txt"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FileExportRefusal,
    testing::Values(
        RefusalCase{"Empty", {}, "", 7, 1, "INVALID_EXPORT_PATH: export_path is empty"},
        RefusalCase{"Relative", {}, "qz/to/a.txt", 7, 1, "INVALID_EXPORT_PATH: export_path must be an absolute path"},
        RefusalCase{"DotDotEndingOutside", {}, "{root}/a/../../escaped.txt", 7, 1, "{beyond}{tmp}/qz/escaped.txt"},
        RefusalCase{"RootItself", {}, "{root}/", 7, 1, "{beyond}{root}"},
        RefusalCase{"SiblingWithRootAsPrefix", {}, "{root}ol/a.txt", 7, 1, "{beyond}{root}ol/a.txt"},
        RefusalCase{"RootInOtherLetterCase", {}, "{tmp}/QZ/to/a.txt", 7, 1, "{beyond}{tmp}/QZ/to/a.txt"},
        RefusalCase{"RootIsLink", {"dir {tmp}/qz", "link {root} {outside}"}, "{root}/a.txt", 7, 1, "{linked}{root}"},
        RefusalCase{"LinkBelowRoot", {"link {root}/sub {outside}"}, "{root}/sub/deeper/a.txt", 7, 1, "{linked}{root}/sub"},
        RefusalCase{"LinkDeepBelowRoot", {"link {root}/a/b {outside}"}, "{root}/a/b/c.txt", 7, 1, "{linked}{root}/a/b"},
        RefusalCase{"DanglingLinkBelowRoot", {"link {root}/sub {outside}/nowhere"}, "{root}/sub/x/a.txt", 7, 1,
                    "{linked}{root}/sub"},
        RefusalCase{"LinkAtTarget", {"link {root}/t.txt {outside}/victim.txt"}, "{root}/t.txt", 3, 0,
                    "{is_link}{root}/t.txt"},
        RefusalCase{"DanglingLinkAtTarget", {"link {root}/t.txt {outside}/new.txt"}, "{root}/t.txt", 3, 0,
                    "{is_link}{root}/t.txt"},
        RefusalCase{"FileInTheWay", {"file {root}/f"}, "{root}/f/a.txt", 7, 1,
                    "INVALID_EXPORT_PATH: export path component is not a directory: {root}/f"},
        RefusalCase{"DirectoryAtTarget", {"dir {root}/dir"}, "{root}/dir", 3, 0,
                    "INVALID_EXPORT_PATH: export path is not a regular file: {root}/dir"},
        RefusalCase{"NulByte", {}, "{root}/a{nul}b", 7, 1, "INVALID_EXPORT_PATH: export_path contains a NUL character"}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

TEST_F(FileExport, UnusableTempDirectoryIsTheAnswer) {
  fs::remove_all(layout_.tmp);
  const json response = Export("source.txt", (layout_.root / "a.txt").native());
  EXPECT_EQ(response["error"], json({{"category", 6},
                                     {"code", 2},
                                     {"message", "validate system temporary directory failed: No such file or directory"}}));
  EXPECT_FALSE(fs::exists(layout_.tmp));
}

// Refusals of the source come before the destination is looked at: no root appears.
TEST_F(FileExport, SourceRefusalsComeFirst) {
  fs::create_directories(layout_.work / "a_dir");
  temp_.WriteFile("outside/secret.txt", "secret");
  fs::create_symlink(layout_.outside / "secret.txt", layout_.work / "innocent.txt");
  const struct {
    const char* path;
    json policy;
    std::string message;
  } cases[] = {
      {"missing.txt", json::object(), "FILE_NOT_FOUND: " + (layout_.work / "missing.txt").native()},
      {"source.txt", {{"blacklist_patterns", {layout_.work.native() + "/*"}}},
       "FILE_ACCESS_DENIED: matched blacklist pattern: " + layout_.work.native() + "/*"},
      {"a_dir", json::object(), "INVALID_FILE_PATH: path is not a regular file: " + (layout_.work / "a_dir").native()},
      // A link inside the whitelist that leads out of it.
      {"innocent.txt", {{"whitelist_patterns", {layout_.work.native() + "/*"}}},
       "FILE_ACCESS_DENIED: did not match any whitelist pattern"},
  };
  for (const auto& c : cases) {
    const json response = Export(c.path, (layout_.root / "a.txt").native(), c.policy);
    ASSERT_FALSE(response.value("ok", true)) << c.path;
    EXPECT_EQ(response["error"], json({{"category", 7}, {"code", 1}, {"message", c.message}})) << c.path;
  }
  EXPECT_FALSE(fs::exists(layout_.root));
}

}  // namespace
