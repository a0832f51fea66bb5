// Child behaviours of a test program, run by re-executing the program itself: a test starts
// `SelfExecutable() --quay-test-child=<name> [args...]` and asserts on what the child reports.
#pragma once

#include <string>
#include <vector>

namespace quay_test {

using TestChildBody = int (*)(const std::vector<std::string>& args);

// Called by QUAY_TEST_CHILD before main; a name registered twice aborts the program.
bool RegisterTestChild(const char* name, TestChildBody body);

// The absolute path of the running program.
[[nodiscard]] std::string SelfExecutable();

// The arguments after the program name that run child `name` with `args`.
[[nodiscard]] std::vector<std::string> TestChildArguments(const std::string& name,
                                                          const std::vector<std::string>& args = {});

// Runs the child that argv[1] names, or else every test; the program's exit code.
int RunTestChildOrTests(int argc, char** argv);

}  // namespace quay_test

// QUAY_TEST_CHILD(echo) { ...; return 0; } defines child "echo"; `args` holds its arguments.
#define QUAY_TEST_CHILD(name)                                            \
  static int QuayTestChild_##name(const std::vector<std::string>& args); \
  [[maybe_unused]] static const bool quay_test_child_registered_##name = \
      ::quay_test::RegisterTestChild(#name, &QuayTestChild_##name);      \
  static int QuayTestChild_##name([[maybe_unused]] const std::vector<std::string>& args)

// The program's main, in place of GoogleTest's.
#define QUAY_TEST_MAIN_WITH_CHILDREN() \
  int main(int argc, char** argv) { return ::quay_test::RunTestChildOrTests(argc, argv); }
