// The registry of child behaviours and the main that picks a child or the tests.
#include "support/test_child.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string_view>

namespace quay_test {
namespace {

constexpr std::string_view kChildFlag = "--quay-test-child=";

// Built on first use: registrations run from other files' static initialisers.
std::map<std::string, TestChildBody>& Registry() {
  static std::map<std::string, TestChildBody> registry;
  return registry;
}

}  // namespace

bool RegisterTestChild(const char* name, TestChildBody body) {
  if (!Registry().emplace(name, body).second) {
    std::fprintf(stderr, "test child registered twice: %s\n", name);
    std::abort();
  }
  return true;
}

std::string SelfExecutable() { return std::filesystem::read_symlink("/proc/self/exe"); }

std::vector<std::string> TestChildArguments(const std::string& name, const std::vector<std::string>& args) {
  std::vector<std::string> result{std::string(kChildFlag) + name};
  result.insert(result.end(), args.begin(), args.end());
  return result;
}

int RunTestChildOrTests(int argc, char** argv) {
  if (argc >= 2 && std::string_view(argv[1]).starts_with(kChildFlag)) {
    const std::string name(std::string_view(argv[1]).substr(kChildFlag.size()));
    const auto found = Registry().find(name);
    if (found == Registry().end()) {
      std::fprintf(stderr, "unknown test child: %s\n", name.c_str());
      return 127;
    }
    return found->second(std::vector<std::string>(argv + 2, argv + argc));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

}  // namespace quay_test
