// The launch JSON: what is accepted, what it yields, and that a refusal changes nothing.
#include "brimo_stack/local_runtime/host_launch_config.h"

#include <gtest/gtest.h>

#include <string>

namespace brimo_stack::local_runtime {
namespace {

// Which launch texts the host accepts is tried end to end (e2e/host_launch_test): here, the
// values read from an accepted one, and what a command line cannot carry.
TEST(LaunchConfigValues, FieldsAreReadAndARefusalChangesNothing) {
  HostLaunchConfig config;
  ASSERT_TRUE(ParseHostLaunchConfig(
      R"({"log":{"log_dir":"/l","log_level":4.9},"transport":null,"crash":{"mode":2.7,"dump_dir":"/d"},"telemetry_endpoint":-7.8})",
      config));
  EXPECT_EQ(config.log.log_dir, "/l");
  EXPECT_EQ(config.log.log_level, 4u);
  EXPECT_FALSE(config.transport.has_value());
  EXPECT_EQ(config.crash.mode, 2);
  EXPECT_EQ(config.crash.dump_dir, "/d");
  EXPECT_EQ(config.telemetry_endpoint, -7);
  EXPECT_FALSE(ParseHostLaunchConfig(R"({"log":{"log_dir":"/other","log_level":0},"transport":null,"crash":null})", config));
  EXPECT_EQ(config.log.log_dir, "/l");
}

// The JSON can carry a NUL in a directory, which the system would cut there.
TEST(LaunchConfigValues, DirectoryWithANulIsRefused) {
  for (const char* text :
       {R"({"log":{"log_dir":"/l\u0000x","log_level":0},"transport":null})",
        R"({"log":{"log_dir":"","log_level":0},"transport":null,"crash":{"mode":2,"dump_dir":"/d\u0000"}})"}) {
    HostLaunchConfig config;
    EXPECT_FALSE(ParseHostLaunchConfig(text, config)) << text;
  }
}

// A NUL cannot travel on a command line, and the host refuses any transport object: what the
// text alone decides about them is seen only here.
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
  for (const char* refused : {R"("x")", R"({"stdin_fd":0})", R"({"stdin_fd":-1,"stdout_fd":1,"stderr_fd":2,"parent_watch_fd":3})"}) {
    EXPECT_FALSE(ParseHostLaunchConfig(R"({"log":{"log_dir":"","log_level":0},"transport":)" + std::string(refused) + "}",
                                       config))
        << refused;
  }
}

}  // namespace
}  // namespace brimo_stack::local_runtime
