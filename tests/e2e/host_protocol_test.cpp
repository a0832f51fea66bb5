// The host's wire protocol through the built binary: frames, envelopes and exit codes.
#include <gtest/gtest.h>

#include "support/host_process.h"

namespace {

using quay_test::HostProcess;

TEST(HostProtocol, PingAnswersOkAndEndOfInputExitsZero) {
  HostProcess host = HostProcess::WithConfig();
  EXPECT_EQ(host.Call({{"method", "ping"}}).dump(), R"({"ok":true})");
  host.CloseStdin();
  const auto status = host.Wait();
  EXPECT_TRUE(status.exited);
  EXPECT_EQ(status.code, 0);
}

}  // namespace
