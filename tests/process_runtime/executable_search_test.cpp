// A bare program name is found on the search path before the fork, as the exec family would.
#include "process_runtime/posix/executable_search.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using brimo_stack::process_runtime::ResolveExecutablePath;

TEST(ResolveExecutablePath, TakesTheFirstExecutableRegularFile) {
  quay_test::TempDir dir;
  const fs::path root = fs::canonical(dir.path());
  dir.WriteFile("plain/tool", "data");  // not executable
  dir.WriteFile("exec/tool", "#!/bin/sh\n");
  fs::create_directories(root / "dir/tool");  // a directory of that name
  ::chmod((root / "exec/tool").c_str(), 0755);
  ::chmod((root / "dir/tool").c_str(), 0755);
  const std::string path = (root / "missing").string() + ":" + (root / "plain").string() + ":" +
                           (root / "dir").string() + ":" + (root / "exec").string();

  EXPECT_EQ(ResolveExecutablePath("tool", path), (root / "exec/tool").string());
  EXPECT_EQ(ResolveExecutablePath("other", path), "other");
  EXPECT_EQ(ResolveExecutablePath("sub/tool", path), "sub/tool");
  EXPECT_EQ(ResolveExecutablePath("/bin/sh", ""), "/bin/sh");
  EXPECT_EQ(ResolveExecutablePath("", path), "");
}

TEST(ResolveExecutablePath, AnEmptyEntryIsTheWorkingDirectory) {
  quay_test::TempDir dir;
  dir.WriteFile("tool", "#!/bin/sh\n");
  ::chmod((dir.path() / "tool").c_str(), 0755);
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  const std::string found = ResolveExecutablePath("tool", "/nonexistent::/also-not");
  fs::current_path(previous);
  EXPECT_EQ(found, "./tool");
}

}  // namespace
