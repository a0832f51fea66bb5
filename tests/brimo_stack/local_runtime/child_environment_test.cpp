// The child's environment and working directory, against the host's real environment and disk.
#include "brimo_stack/local_runtime/child_environment.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>

#include "support/temp_dir.h"

namespace {

using namespace brimo_stack::local_runtime;
using Block = std::vector<std::string>;

Block Build(std::string_view base_env, int mode) {
  Block block;
  std::string error;
  EXPECT_TRUE(BuildEnvironmentBlock(base_env, mode, block, error, nullptr)) << error;
  return block;
}

// Sets a variable for one test and puts the old state back.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* old = ::getenv(name)) old_ = old;
    value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1);
  }
  ~ScopedVariable() { old_.has_value() ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(ParseEnvironmentObject, ValuesAndRefusals) {
  std::map<std::string, std::string> parsed;
  ASSERT_TRUE(ParseEnvironmentObject(R"({"A":true,"B":7,"C":1.5,"D":"x y"})", "base_env", parsed).ok);
  EXPECT_EQ(parsed, (std::map<std::string, std::string>{{"A", "true"}, {"B", "7"}, {"C", "1.5"}, {"D", "x y"}}));
  ASSERT_TRUE(ParseEnvironmentObject("", "base_env", parsed).ok);
  EXPECT_TRUE(parsed.empty());

  const struct {
    std::string text;
    std::string message;
  } refused[] = {
      {"[]", "base_env must be a JSON object"},
      {"{", "base_env must be a JSON object"},
      {R"({"A":null})", "base_env contains invalid value for environment variable: A"},
      {R"({"A":"ok","B":[1]})", "base_env contains invalid value for environment variable: B"},
      {R"({"A":{}})", "base_env contains invalid value for environment variable: A"},
      // The block could not carry these: the child would read another name or value.
      {R"({"A":"x\u0000y"})", "base_env contains invalid value for environment variable: A"},
      {R"({"A=B":"x"})", "base_env contains invalid environment variable name: A=B"},
      {R"({"":"x"})", "base_env contains invalid environment variable name: "},
  };
  for (const auto& c : refused) {
    const auto result = ParseEnvironmentObject(c.text, "base_env", parsed);
    ASSERT_FALSE(result.ok) << c.text;
    EXPECT_EQ(result.error->message, c.message);
    EXPECT_EQ(result.error->category, 7);
    EXPECT_EQ(result.error->code, 1);
    EXPECT_TRUE(parsed.empty()) << c.text;
  }
}

TEST(BuildEnvironmentBlock, ShortListKeepsOnlySetVariablesAndBaseEnvWins) {
  const ScopedVariable path("PATH", "/usr/bin");
  const ScopedVariable home("HOME", "");
  const ScopedVariable tz("TZ", nullptr);
  const ScopedVariable secret("QUAY_TEST_SECRET", "s");
  const Block block = Build(R"({"path":"x","LANG":"C","N":3})", 1);
  EXPECT_TRUE(std::is_sorted(block.begin(), block.end()));
  EXPECT_NE(std::find(block.begin(), block.end(), "PATH=/usr/bin"), block.end());
  EXPECT_NE(std::find(block.begin(), block.end(), "path=x"), block.end());
  EXPECT_NE(std::find(block.begin(), block.end(), "LANG=C"), block.end());
  EXPECT_NE(std::find(block.begin(), block.end(), "N=3"), block.end());
  for (const std::string& entry : block) {
    const std::string name = entry.substr(0, entry.find('='));
    const auto& names = internal::ShortEnvironmentNames();
    EXPECT_TRUE(name == "path" || name == "N" || std::find(names.begin(), names.end(), name) != names.end())
        << entry;
  }
  EXPECT_EQ(std::count_if(block.begin(), block.end(), [](const std::string& e) { return e.starts_with("HOME="); }),
            0);
}

TEST(BuildEnvironmentBlock, InheritedEnvironmentWithOverrides) {
  const ScopedVariable mine("QUAY_TEST_INHERITED", "from host");
  const ScopedVariable replaced("QUAY_TEST_REPLACED", "old");
  const Block block = Build(R"({"QUAY_TEST_REPLACED":"new"})", 0);
  EXPECT_TRUE(std::is_sorted(block.begin(), block.end()));
  EXPECT_NE(std::find(block.begin(), block.end(), "QUAY_TEST_INHERITED=from host"), block.end());
  EXPECT_EQ(std::count_if(block.begin(), block.end(),
                          [](const std::string& e) { return e.starts_with("QUAY_TEST_REPLACED="); }),
            1);
  EXPECT_NE(std::find(block.begin(), block.end(), "QUAY_TEST_REPLACED=new"), block.end());

  Block refused;
  std::string error;
  int system_error = -1;
  EXPECT_FALSE(BuildEnvironmentBlock(R"({"A":null})", 0, refused, error, &system_error));
  EXPECT_EQ(error, "base_env contains invalid value for environment variable: A");
  EXPECT_EQ(system_error, 0);
}

TEST(ValidateWorkingDirectory, Cases) {
  quay_test::TempDir dir;
  const std::string file = dir.WriteFile("file", "x").string();
  const std::string root = dir.path().string();
  const struct {
    std::string cwd;
    std::string message;  // empty: accepted
  } cases[] = {
      {"", ""},
      {root, ""},
      {"relative/dir", "cwd must be an absolute path: relative/dir"},
      {root + "/missing", "cwd does not exist: " + root + "/missing"},
      {file + "/below", "cwd does not exist: " + file + "/below"},
      {file, "cwd is not a directory: " + file},
      {root + std::string("\0/x", 3), "path contains a NUL character"},
  };
  for (const auto& c : cases) {
    const auto result = ValidateWorkingDirectory(c.cwd);
    EXPECT_EQ(result.ok ? "" : result.error->message, c.message) << c.cwd;
    if (!result.ok) {
      EXPECT_EQ(result.error->category, 7);
    }
  }
}

}  // namespace
