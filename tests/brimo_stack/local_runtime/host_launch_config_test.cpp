// The launch JSON: what is accepted, what it yields, and that a refusal changes nothing.
#include "brimo_stack/local_runtime/host_launch_config.h"

#include <gtest/gtest.h>

#include <string>

namespace brimo_stack::local_runtime {
namespace {

struct ConfigCase {
  const char* name;
  std::string text;
  bool accepted;
};

class LaunchConfig : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(LaunchConfig, AcceptsOrRefusesWithoutTouchingTheOutput) {
  const ConfigCase& c = GetParam();
  HostLaunchConfig config;
  config.log.log_dir = "before";
  config.telemetry_endpoint = 99;
  const bool accepted = ParseHostLaunchConfig(c.text, config);
  EXPECT_EQ(accepted, c.accepted);
  if (!accepted) {
    EXPECT_EQ(config.log.log_dir, "before");
    EXPECT_EQ(config.telemetry_endpoint, 99);
  }
}

const std::string kLog = R"("log":{"log_dir":"d","log_level":3})";

INSTANTIATE_TEST_SUITE_P(
    Texts, LaunchConfig,
    ::testing::Values(
        ConfigCase{"Minimal", "{" + kLog + R"(,"transport":null})", true},
        ConfigCase{"LogNotObject", R"({"log":[],"transport":null})", false},
        ConfigCase{"LogDirMissing", R"({"log":{"log_level":3},"transport":null})", false},
        ConfigCase{"LogDirNumber", R"({"log":{"log_dir":1,"log_level":3},"transport":null})", false},
        ConfigCase{"LogLevelString", R"({"log":{"log_dir":"","log_level":"3"},"transport":null})", false},
        ConfigCase{"LogLevelFalse", R"({"log":{"log_dir":"","log_level":false},"transport":null})", false},
        ConfigCase{"TransportAbsent", "{" + kLog + "}", false},
        ConfigCase{"TransportString", "{" + kLog + R"(,"transport":"x"})", false},
        ConfigCase{"TransportNegative",
                   "{" + kLog + R"(,"transport":{"stdin_fd":-1,"stdout_fd":1,"stderr_fd":2,"parent_watch_fd":3}})",
                   false},
        ConfigCase{"TransportIncomplete", "{" + kLog + R"(,"transport":{"stdin_fd":0}})", false},
        ConfigCase{"CrashModeOneEmpty", "{" + kLog + R"(,"transport":null,"crash":{"mode":1,"dump_dir":""}})", true},
        ConfigCase{"CrashModeTwo", "{" + kLog + R"(,"transport":null,"crash":{"mode":2,"dump_dir":"/d"}})", true},
        ConfigCase{"CrashModeTwoFraction", "{" + kLog + R"(,"transport":null,"crash":{"mode":2.7,"dump_dir":"/d"}})", true},
        ConfigCase{"CrashModeThree", "{" + kLog + R"(,"transport":null,"crash":{"mode":3,"dump_dir":""}})", false},
        ConfigCase{"CrashModeNegative", "{" + kLog + R"(,"transport":null,"crash":{"mode":-1,"dump_dir":""}})", false},
        ConfigCase{"CrashDirMissing", "{" + kLog + R"(,"transport":null,"crash":{"mode":2}})", false},
        ConfigCase{"CrashModeMissing", "{" + kLog + R"(,"transport":null,"crash":{"dump_dir":""}})", false},
        ConfigCase{"TelemetryNull", "{" + kLog + R"(,"transport":null,"telemetry_endpoint":null})", false},
        ConfigCase{"TelemetryNegative", "{" + kLog + R"(,"transport":null,"telemetry_endpoint":-5})", true},
        ConfigCase{"NotAnObject", "[1]", false},
        ConfigCase{"Comment", "{" + kLog + R"(,"transport":null /* c */})", false},
        ConfigCase{"TwoValues", "{" + kLog + R"(,"transport":null} {})", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(LaunchConfigValues, FieldsAreRead) {
  HostLaunchConfig config;
  ASSERT_TRUE(ParseHostLaunchConfig(
      R"({"log":{"log_dir":"/l","log_level":4.9},"transport":null,"crash":{"mode":2,"dump_dir":"/d"},"telemetry_endpoint":-7.8})",
      config));
  EXPECT_EQ(config.log.log_dir, "/l");
  EXPECT_EQ(config.log.log_level, 4u);
  EXPECT_FALSE(config.transport.has_value());
  EXPECT_EQ(config.crash.mode, 2);
  EXPECT_EQ(config.crash.dump_dir, "/d");
  EXPECT_EQ(config.telemetry_endpoint, -7);
}

// Counts, option spellings and the size limit are refused end to end; what a command line
// cannot carry is tried here.
TEST(HostArguments, EmbeddedNulAndTransportObjectAreRefused) {
  const std::string good = R"({"log":{"log_dir":"","log_level":0},"transport":null})";
  const std::string transport =
      R"({"log":{"log_dir":"","log_level":0},"transport":{"stdin_fd":true,"stdout_fd":1,"stderr_fd":2,"parent_watch_fd":3}})";
  HostLaunchConfig config;
  EXPECT_TRUE(ParseHostArguments({"p", "--brimo-stack-host-config", good}, config));
  EXPECT_FALSE(ParseHostArguments({"p", std::string("--brimo-stack-host-config\0", 26), good}, config));
  // A well-formed transport object parses but is refused for this host.
  EXPECT_TRUE(ParseHostLaunchConfig(transport, config));
  EXPECT_EQ(config.transport->stdin_fd, 1);
  EXPECT_FALSE(ParseHostArguments({"p", "--brimo-stack-host-config", transport}, config));
}

}  // namespace
}  // namespace brimo_stack::local_runtime
