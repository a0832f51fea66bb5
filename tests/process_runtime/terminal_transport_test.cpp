// The terminal road: what the child sees, output through the terminal without loss, standard
// input with terminal line ends, and the readiness probe that decides between terminal and pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "brimo_stack_common/log_summary.h"
#include "brimo_stack_common/posix/scoped_fd.h"
#include "process_runtime/native_process.h"
#include "support/native_process_helpers.h"
#include "support/test_child.h"

namespace {

using namespace quay_test;
using namespace std::chrono_literals;
using process_runtime::CreateNativeProcess;
using Clock = std::chrono::steady_clock;

constexpr const char* kMarker = "__BRIMO_STACK_CONPTY_READY__";

// Lines of 100 bytes, each numbered, so that a lost or repeated piece shows.
std::string BurstText(size_t size) {
  std::string text;
  for (size_t line = 0; text.size() < size; ++line) {
    std::string row = "line " + std::to_string(line) + " ";
    row.resize(99, static_cast<char>('a' + line % 26));
    text += row + "\n";
  }
  return text;
}

QUAY_TEST_CHILD(exit_code) { return std::stoi(args.at(0)); }

QUAY_TEST_CHILD(tty_view) {
  nlohmann::json view;
  for (int fd = 0; fd < 3; ++fd) {
    winsize size{};
    view["tty"].push_back(::isatty(fd) == 1);
    view["size"].push_back(
        ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? std::to_string(size.ws_col) + "x" + std::to_string(size.ws_row) : "none");
  }
  view["controlling"] = brimo_stack::ScopedFd(::open("/dev/tty", O_RDWR | O_CLOEXEC)).valid();
  view["session_leader"] = ::getsid(0) == ::getpid();
  std::cout << view.dump() << std::endl;
  return 0;
}

QUAY_TEST_CHILD(burst) {
  const std::string text = BurstText(std::stoul(args.at(0)));
  return ::write(1, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

// Turns the terminal raw, so that the bytes read are the bytes the host wrote, and reports them
// once a '!' arrives.
QUAY_TEST_CHILD(raw_input) {
  termios mode{};
  if (::tcgetattr(0, &mode) != 0) return 2;
  ::cfmakeraw(&mode);
  if (::tcsetattr(0, TCSANOW, &mode) != 0) return 3;
  std::cout << "ready" << std::endl;
  std::string got;
  for (char byte = 0; byte != '!' && ::read(0, &byte, 1) == 1;) got += byte;
  std::cout << "got=" << nlohmann::json(got).dump() << std::endl;
  return 0;
}

// Answers the probe command (args[1]) with the marker as args[0] spells it, then echoes one
// more line.
QUAY_TEST_CHILD(marker) {
  const auto next_line = [] {
    std::string line;
    while (std::getline(std::cin, line)) {
      std::erase(line, '\r');
      if (!line.empty()) return line;
    }
    return line;
  };
  if (next_line() != args.at(1)) return 2;
  const std::string& spelling = args.at(0);
  std::cout << (spelling == "plain"   ? std::string(kMarker)
                : spelling == "split" ? std::string("__BRIMO_STACK_\x1b[31mCONPTY_READY__\x1b[0m")
                                      : std::string("no marker here"))
            << std::endl;
  const std::string line = next_line();
  std::cout << "got=" << line << std::endl;
  return 0;
}

class TerminalViewTest : public testing::TestWithParam<Containment> {};

TEST_P(TerminalViewTest, ChildRunsOnItsControllingTerminal) {
  const ScopedContainment scoped(GetParam());
  process_runtime::ProcessLaunchOptions options = TestChildOptions("tty_view", {}, /*transport=*/1);
  options.pipe_arguments = TestChildArguments("exit_code", {"9"});
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(options).ok);
  EXPECT_TRUE(process->UsesConpty());
  char buffer[64];
  process_runtime::OutputRead read;
  const auto started = Clock::now();
  ASSERT_TRUE(process->ReadStderr(buffer, sizeof buffer, read).ok);
  EXPECT_TRUE(read.eof);
  EXPECT_EQ(read.bytes_read, 0u);
  EXPECT_LT(Clock::now() - started, 1s);
  StreamCollector collector(*process, Stream::kStdout);
  EXPECT_TRUE(collector.WaitForEnd(10s));
  EXPECT_EQ(WaitForExit(*process), 0u);
  const std::string out = collector.Text();
  const nlohmann::json view = nlohmann::json::parse(out.substr(0, out.find('\r')));
  EXPECT_EQ(view["tty"], nlohmann::json({true, true, true}));
  EXPECT_EQ(view["size"], nlohmann::json({"120x30", "120x30", "120x30"}));
  EXPECT_TRUE(view["controlling"]);
  EXPECT_TRUE(view["session_leader"]);
}

INSTANTIATE_TEST_SUITE_P(Containments, TerminalViewTest, testing::ValuesIn(kAllContainments));

// A child that writes and exits at once races its own output through the terminal: none of it
// may be lost when the terminal hangs up.
TEST(TerminalTransport, OutputOfAChildThatExitsAtOnceArrivesWhole) {
  std::string expected;
  for (const char byte : BurstText(20000)) expected += byte == '\n' ? "\r\n" : std::string(1, byte);
  for (int run = 0; run < 50; ++run) {
    const FinishedChild child = RunToEnd(TestChildOptions("burst", {"20000"}, 2));
    ASSERT_EQ(child.exit_code, 0u) << run;
    ASSERT_TRUE(child.out == expected) << "run " << run << ": " << child.out.size() << " of " << expected.size();
  }
}

TEST(TerminalTransport, StdinLineEndsBecomeTerminalLineEnds) {
  const auto process = CreateNativeProcess();
  ASSERT_TRUE(process->Start(TestChildOptions("raw_input", {}, 2)).ok);
  ASSERT_TRUE(process->UsesConpty());
  StreamCollector out(*process, Stream::kStdout);
  ASSERT_TRUE(out.WaitForText("ready", 10s));
  ASSERT_TRUE(process->WriteStdin("one\ntwo\r\nthree\rfour").ok);
  ASSERT_TRUE(process->WriteStdin("!").ok);
  EXPECT_TRUE(out.WaitForEnd(10s));
  EXPECT_NE(out.Text().find(R"(got="one\r\ntwo\r\nthree\r\nfour!")"), std::string::npos) << out.Text();
  EXPECT_EQ(WaitForExit(*process), 0u);
}

struct ProbeCase {
  const char* spelling;
  bool passes;
};

class ReadyProbeTest : public testing::TestWithParam<ProbeCase> {};

// A failed probe falls back to pipes, where the child runs with the pipe arguments.
TEST_P(ReadyProbeTest, MarkerDecidesBetweenTerminalAndPipes) {
  const ProbeCase& c = GetParam();
  process_runtime::ProcessLaunchOptions options = TestChildOptions("marker", {c.spelling, "quay-ready-check"}, 2);
  options.ready_probe_command = "quay-ready-check";
  options.pipe_arguments = TestChildArguments("exit_code", {"7"});
  const auto process = CreateNativeProcess();
  const auto started = Clock::now();
  ASSERT_TRUE(process->Start(options).ok);
  const auto took = Clock::now() - started;
  EXPECT_EQ(process->UsesConpty(), c.passes);
  if (c.passes) {
    EXPECT_LT(took, 5s);
    StreamCollector out(*process, Stream::kStdout);
    ASSERT_TRUE(process->WriteStdin("bye\n").ok);
    EXPECT_TRUE(out.WaitForText("got=bye", 10s)) << nlohmann::json(out.Text()).dump();
  } else {
    EXPECT_GE(took, 10s);
    EXPECT_LT(took, 14s);
    StreamCollector out(*process, Stream::kStdout);
    StreamCollector err(*process, Stream::kStderr);
  }
  EXPECT_EQ(WaitForExit(*process), c.passes ? 0u : 7u);
}

INSTANTIATE_TEST_SUITE_P(Spellings, ReadyProbeTest,
                         testing::Values(ProbeCase{"plain", true}, ProbeCase{"split", true}, ProbeCase{"none", false}),
                         [](const auto& info) { return std::string(info.param.spelling); });

// The fallback is seen only in the log: the line names the stage, the role and the ids, and the
// instance id only as its hash.
TEST(ReadyProbe, AChildThatEndsBeforeTheMarkerFallsBackWithOneWarning) {
  std::ostringstream log;
  const auto previous = spdlog::default_logger();
  auto capture = std::make_shared<spdlog::logger>("capture", std::make_shared<spdlog::sinks::ostream_sink_mt>(log));
  capture->set_pattern("%l %v");
  spdlog::set_default_logger(capture);
  process_runtime::ProcessLaunchOptions options = TestChildOptions("exit_code", {"0"}, 1);
  options.ready_probe_command = "quay-ready-check";
  options.pipe_arguments = TestChildArguments("exit_code", {"7"});
  options.role = process_runtime::ProcessRole::kFileWorker;
  options.sdk_call_id = "call-1";
  options.task_id = "task-1";
  options.instance_id = "instance-secret";
  const auto process = CreateNativeProcess();
  const auto started = process->Start(options);
  spdlog::set_default_logger(previous);
  ASSERT_TRUE(started.ok) << started.error->message;
  EXPECT_FALSE(process->UsesConpty());
  EXPECT_EQ(WaitForExit(*process), 7u);
  const std::string text = log.str();
  EXPECT_NE(text.find("warning shell_process_start_conpty_failed fallback=pipe transport_stage=ready_probe_read "
                      "process_role=file_worker sdk_call_id=call-1 task_id=task-1 instance_id_hash=" +
                      brimo_stack::HashForLog("instance-secret") + " diagnostic_bytes="),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("instance-secret"), std::string::npos) << text;
}

}  // namespace

QUAY_TEST_MAIN_WITH_CHILDREN()
