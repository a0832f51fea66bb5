// The built host binary (or another program) as a child on real pipes, for end-to-end tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quay_test {

// The launch JSON without logging or crash handling.
[[nodiscard]] std::string DefaultLaunchConfig();

// Whether this machine lets a child hide /proc behind an empty mount of its own (root, or a
// user namespace that allows it).
[[nodiscard]] bool CanHideProc();

struct ExitStatus {
  bool exited = false;   // normal exit with `code`
  int code = -1;
  int signal = 0;        // the signal that ended the child, when not `exited`
  bool core_dumped = false;
};

class HostProcess {
 public:
  // Starts the binary with exactly these arguments after the program name. With `stdin_path`,
  // standard input is that file opened read-only instead of a pipe. With `hide_proc`, the child
  // runs in a mount namespace of its own with an empty /proc (see CanHideProc). `program` is
  // looked up on PATH when it has no slash.
  explicit HostProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& extra_env = {},
                       const std::string& stdin_path = "", bool hide_proc = false,
                       const std::string& program = QUAY_TOOLS_HOST_BINARY);
  // Starts it with `--brimo-stack-host-config <config>`.
  static HostProcess WithConfig(const std::string& config = DefaultLaunchConfig(),
                                const std::vector<std::string>& extra_env = {});
  ~HostProcess();
  // Never moved: the pipes and the child belong to one object (WithConfig's result is elided).
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  // Writes bytes to the child's stdin; false if the pipe is gone.
  bool Write(std::string_view bytes);
  void CloseStdin();
  // Closes the read end of the child's stdout, so that its next write fails.
  void CloseStdout();
  // One line of stdout without its line feed; nullopt at end of output or time-out.
  std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Writes one request line and parses the answer line.
  nlohmann::json Call(const nlohmann::json& request);
  // Everything left on stdout until it closes.
  std::string ReadRemainingStdout(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Waits for the child; kills it after the time-out.
  ExitStatus Wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // All of stderr, after the child ended.
  std::string Stderr();

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  bool FillStdout(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  int stdin_fd_ = -1;
  int stdout_fd_ = -1;
  int stderr_fd_ = -1;
  std::string stdout_buffer_;
  bool stdout_closed_ = false;
  std::optional<ExitStatus> status_;
};

}  // namespace quay_test
