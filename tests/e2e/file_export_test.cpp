// file_export through the built binary: the success road and every refusal of the destination.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>

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

void WriteAt(const fs::path& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  ASSERT_TRUE(out.good()) << path;
}

bool IsAtOrBelow(const std::string& path, const fs::path& root) {
  const std::string& r = root.native();
  return path == r || (path.size() > r.size() && path.compare(0, r.size(), r) == 0 && path[r.size()] == '/');
}

struct Layout {
  fs::path tmp;      // the child's TMPDIR
  fs::path root;     // tmp/qz/to, the trusted export root
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
    fs::create_directories(layout_.tmp);
    fs::create_directories(layout_.work);
    fs::create_directories(layout_.outside);
    source_ = temp_.WriteFile("work/source.txt", "payload");
  }

  // The child takes TMPDIR from its environment; an inherited one would stand before ours.
  HostProcess& Host(const std::string& install_dir = "") {
    if (!host_.has_value()) {
      std::optional<std::string> saved;
      if (const char* value = std::getenv("TMPDIR")) {
        saved = value;
      }
      ::unsetenv("TMPDIR");
      host_.emplace(HostProcess::WithConfig(quay_test::DefaultLaunchConfig(), {"TMPDIR=" + layout_.tmp.native()}));
      if (saved.has_value()) {
        ::setenv("TMPDIR", saved->c_str(), /*overwrite=*/1);
      }
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
  temp_.WriteFile("work/a b.txt", "hello world");
  const fs::path target = layout_.root / "sub" / "dir" / "a b.txt";
  const json response = Export("a b.txt", target.native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  const json data = Data(response);
  EXPECT_EQ(data.at("local_path"), target.native());
  EXPECT_EQ(data.at("size"), 11);
  ASSERT_EQ(layout_.root.native().find_first_not_of(
                "/ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~"),
            std::string::npos)
      << "the temporary directory's name would need encoding itself";
  EXPECT_EQ(data.at("url"), "file://" + layout_.root.native() + "/sub/dir/a%20b.txt");
  EXPECT_EQ(ReadWholeFile(target), "hello world");
  EXPECT_EQ(ReadWholeFile(layout_.work / "a b.txt"), "hello world");
}

TEST_F(FileExport, NonAsciiNameIsEncodedInUrlAndPlainInLocalPath) {
  temp_.WriteFile("work/\xc3\xa9t\xc3\xa9.txt", "x");
  const fs::path target = layout_.root / "\xc3\xa9t\xc3\xa9.txt";
  const json response = Export("\xc3\xa9t\xc3\xa9.txt", target.native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("local_path"), target.native());
  const std::string url = Data(response).at("url");
  EXPECT_EQ(url.substr(url.rfind('/')), "/%C3%A9t%C3%A9.txt");
}

TEST_F(FileExport, EmptySourceGivesSizeZero) {
  temp_.WriteFile("work/empty.txt", "");
  const json response = Export("empty.txt", (layout_.root / "empty.txt").native());
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("size"), 0);
  EXPECT_TRUE(fs::is_regular_file(layout_.root / "empty.txt"));
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

TEST_F(FileExport, DotDotThatComesBackIntoTheRootIsAllowed) {
  const std::string export_path = layout_.root.native() + "/../to/x/../back.txt";
  const json response = Export("source.txt", export_path);
  ASSERT_TRUE(response.value("ok", false)) << response.dump();
  EXPECT_EQ(Data(response).at("local_path"), (layout_.root / "back.txt").native());
  EXPECT_EQ(ReadWholeFile(layout_.root / "back.txt"), "payload");
  EXPECT_FALSE(fs::exists(layout_.root / "x"));
}

TEST_F(FileExport, ProfileInstallDirMovesTheRootBesideIt) {
  const fs::path profile_root = temp_.path() / "profile" / "brimo_stack" / "to";
  fs::create_directories(temp_.path() / "profile" / "sandbox_envs_dir");
  Host((temp_.path() / "profile" / "sandbox_envs_dir").native() + "/");

  const json inside = Export("source.txt", (profile_root / "a.txt").native());
  ASSERT_TRUE(inside.value("ok", false)) << inside.dump();
  EXPECT_EQ(ReadWholeFile(profile_root / "a.txt"), "payload");

  const json temp_root = Export("source.txt", (layout_.root / "a.txt").native());
  ASSERT_FALSE(temp_root.value("ok", true));
  EXPECT_EQ(temp_root["error"]["message"],
            "INVALID_EXPORT_PATH: export_path is outside trusted export root: " + (layout_.root / "a.txt").native());
  EXPECT_FALSE(fs::exists(layout_.tmp / "qz"));
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

// One refusal: what to build first, what to ask for, and the answer in full.
struct RefusalCase {
  const char* name;
  void (*setup)(const Layout&);
  std::string (*export_path)(const Layout&);
  int category;
  int code;
  std::string (*message)(const Layout&);
};

class FileExportRefusal : public FileExport, public testing::WithParamInterface<RefusalCase> {};

TEST_P(FileExportRefusal, AnswersItsMessageAndWritesVictimOnlyOutsideTheRoot) {
  const RefusalCase& c = GetParam();
  c.setup(layout_);
  const std::set<std::string> before = ListTree(temp_.path());
  const std::string outside_victim = ReadWholeFile(layout_.outside / "victim.txt");

  const json response = Export("source.txt", c.export_path(layout_));
  ASSERT_FALSE(response.value("ok", true)) << response.dump();
  EXPECT_EQ(response["error"], json({{"category", c.category}, {"code", c.code}, {"message", c.message(layout_)}}));

  for (const std::string& entry : ListTree(temp_.path())) {
    if (before.count(entry) == 0) {
      EXPECT_TRUE(IsAtOrBelow(entry, layout_.root)) << "created outside the root: " << entry;
    }
  }
  EXPECT_EQ(ReadWholeFile(layout_.outside / "victim.txt"), outside_victim);
  EXPECT_FALSE(fs::exists(layout_.outside / "new.txt"));
}

void VictimOnly(const Layout& l) { WriteAt(l.outside / "victim.txt", "victim"); }
void RootIsLink(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root.parent_path());
  fs::create_directory_symlink(l.outside, l.root);
}
void LinkBelowRoot(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root);
  fs::create_directory_symlink(l.outside, l.root / "sub");
}
void LinkDeepBelowRoot(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root / "a");
  fs::create_directory_symlink(l.outside, l.root / "a" / "b");
}
void DanglingLinkBelowRoot(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root);
  fs::create_directory_symlink(l.outside / "nowhere", l.root / "sub");
}
void LinkAtTarget(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root);
  fs::create_symlink(l.outside / "victim.txt", l.root / "t.txt");
}
void DanglingLinkAtTarget(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root);
  fs::create_symlink(l.outside / "new.txt", l.root / "t.txt");
}
void FileInTheWay(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root);
  WriteAt(l.root / "f", "not a directory");
}
void DirectoryAtTarget(const Layout& l) {
  VictimOnly(l);
  fs::create_directories(l.root / "dir");
}

std::string Root(const Layout& l) { return l.root.native(); }
std::string Outside(const Layout&) { return "INVALID_EXPORT_PATH: export_path is outside trusted export root: "; }

INSTANTIATE_TEST_SUITE_P(
    Cases, FileExportRefusal,
    testing::Values(
        RefusalCase{"Empty", VictimOnly, [](const Layout&) { return std::string(); }, 7, 1,
                    [](const Layout&) { return std::string("INVALID_EXPORT_PATH: export_path is empty"); }},
        RefusalCase{"Relative", VictimOnly, [](const Layout&) { return std::string("qz/to/a.txt"); }, 7, 1,
                    [](const Layout&) {
                      return std::string("INVALID_EXPORT_PATH: export_path must be an absolute path");
                    }},
        RefusalCase{"DotDotEndingOutside", VictimOnly, [](const Layout& l) { return Root(l) + "/a/../../escaped.txt"; },
                    7, 1, [](const Layout& l) { return Outside(l) + (l.tmp / "qz" / "escaped.txt").native(); }},
        RefusalCase{"RootItself", VictimOnly, [](const Layout& l) { return Root(l) + "/"; }, 7, 1,
                    [](const Layout& l) { return Outside(l) + Root(l); }},
        RefusalCase{"SiblingWithRootAsPrefix", VictimOnly, [](const Layout& l) { return Root(l) + "ol/a.txt"; }, 7, 1,
                    [](const Layout& l) { return Outside(l) + Root(l) + "ol/a.txt"; }},
        RefusalCase{"RootInOtherLetterCase", VictimOnly,
                    [](const Layout& l) { return (l.tmp / "QZ" / "to" / "a.txt").native(); }, 7, 1,
                    [](const Layout& l) { return Outside(l) + (l.tmp / "QZ" / "to" / "a.txt").native(); }},
        RefusalCase{"RootIsLink", RootIsLink, [](const Layout& l) { return Root(l) + "/a.txt"; }, 7, 1,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path contains a reparse point: " + Root(l);
                    }},
        RefusalCase{"LinkBelowRoot", LinkBelowRoot, [](const Layout& l) { return Root(l) + "/sub/deeper/a.txt"; },
                    7, 1,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path contains a reparse point: " + Root(l) + "/sub";
                    }},
        RefusalCase{"LinkDeepBelowRoot", LinkDeepBelowRoot, [](const Layout& l) { return Root(l) + "/a/b/c.txt"; },
                    7, 1,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path contains a reparse point: " + Root(l) + "/a/b";
                    }},
        RefusalCase{"DanglingLinkBelowRoot", DanglingLinkBelowRoot,
                    [](const Layout& l) { return Root(l) + "/sub/x/a.txt"; }, 7, 1,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path contains a reparse point: " + Root(l) + "/sub";
                    }},
        RefusalCase{"LinkAtTarget", LinkAtTarget, [](const Layout& l) { return Root(l) + "/t.txt"; }, 3, 0,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path is a reparse point: " + Root(l) + "/t.txt";
                    }},
        RefusalCase{"DanglingLinkAtTarget", DanglingLinkAtTarget, [](const Layout& l) { return Root(l) + "/t.txt"; },
                    3, 0,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path is a reparse point: " + Root(l) + "/t.txt";
                    }},
        RefusalCase{"FileInTheWay", FileInTheWay, [](const Layout& l) { return Root(l) + "/f/a.txt"; }, 7, 1,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path component is not a directory: " + Root(l) + "/f";
                    }},
        RefusalCase{"DirectoryAtTarget", DirectoryAtTarget, [](const Layout& l) { return Root(l) + "/dir"; }, 3, 0,
                    [](const Layout& l) {
                      return "INVALID_EXPORT_PATH: export path is not a regular file: " + Root(l) + "/dir";
                    }}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

// Refusals of the source come before the destination is looked at: no root appears.
TEST_F(FileExport, SourceRefusalsComeFirst) {
  fs::create_directories(layout_.work / "a_dir");
  struct {
    const char* path;
    json policy;
    std::string message;
  } cases[] = {
      {"missing.txt", json::object(), "FILE_NOT_FOUND: " + (layout_.work / "missing.txt").native()},
      {"source.txt", {{"blacklist_patterns", {layout_.work.native() + "/*"}}},
       "FILE_ACCESS_DENIED: matched blacklist pattern: " + layout_.work.native() + "/*"},
      {"a_dir", json::object(), "INVALID_FILE_PATH: path is not a regular file: " + (layout_.work / "a_dir").native()},
  };
  for (const auto& c : cases) {
    const json response = Export(c.path, (layout_.root / "a.txt").native(), c.policy);
    ASSERT_FALSE(response.value("ok", true)) << c.path;
    EXPECT_EQ(response["error"], json({{"category", 7}, {"code", 1}, {"message", c.message}})) << c.path;
  }
  EXPECT_FALSE(fs::exists(layout_.tmp / "qz"));
}

TEST_F(FileExport, SourceLinkLeadingOutOfTheWhitelistIsRefused) {
  WriteAt(layout_.outside / "secret.txt", "secret");
  fs::create_symlink(layout_.outside / "secret.txt", layout_.work / "innocent.txt");
  const json policy = {{"whitelist_patterns", {layout_.work.native() + "/*"}}};
  const json response = Export("innocent.txt", (layout_.root / "a.txt").native(), policy);
  ASSERT_FALSE(response.value("ok", true));
  EXPECT_EQ(response["error"]["message"], "FILE_ACCESS_DENIED: did not match any whitelist pattern");
  EXPECT_FALSE(fs::exists(layout_.root / "a.txt"));
}

}  // namespace
