// The built host binary (or another program) as a child on real pipes, for end-to-end tests.
#include "support/host_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

namespace quay_test {
namespace {

void CloseFd(int& fd) {
  if (fd >= 0) ::close(std::exchange(fd, -1));
}

// An empty /proc in a mount namespace of this process alone.
bool HideProc() {
  return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

}  // namespace

std::string DefaultLaunchConfig() { return R"({"log":{"log_dir":"","log_level":0},"transport":null})"; }

bool CanHideProc() {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(HideProc() ? 0 : 1);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

HostProcess::HostProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& extra_env,
                         const std::string& stdin_path, bool hide_proc, const std::string& program) {
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2 failed");
  }
  std::vector<std::string> argv_storage{program};
  argv_storage.insert(argv_storage.end(), arguments.begin(), arguments.end());
  // An extra NAME=value replaces an inherited NAME, so the child sees exactly one of it.
  const auto name_of = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
  std::vector<std::string> env_storage(extra_env);
  for (char** e = environ; *e != nullptr; ++e) {
    const auto same_name = [&](const std::string& extra) { return name_of(extra) == name_of(*e); };
    if (std::none_of(extra_env.begin(), extra_env.end(), same_name)) env_storage.emplace_back(*e);
  }
  // The null-terminated pointer arrays of execve, into strings that live until the exec.
  const auto pointers = [](std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
  };
  std::vector<char*> argv = pointers(argv_storage);
  std::vector<char*> envp = pointers(env_storage);

  pid_ = ::fork();
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    if (hide_proc && !HideProc()) ::_exit(125);
    if (!stdin_path.empty()) {
      const int fd = ::open(stdin_path.c_str(), O_RDONLY);
      if (fd < 0) ::_exit(126);
      in[0] = fd;
    }
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::execvpe(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  stdin_fd_ = in[1];
  stdout_fd_ = out[0];
  stderr_fd_ = err[0];
}

HostProcess HostProcess::WithConfig(const std::string& config, const std::vector<std::string>& extra_env) {
  return HostProcess({"--brimo-stack-host-config", config}, extra_env);
}

HostProcess::~HostProcess() {
  CloseFd(stdin_fd_);
  if (pid_ > 0 && !status_.has_value()) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  CloseFd(stdout_fd_);
  CloseFd(stderr_fd_);
}

bool HostProcess::Write(std::string_view bytes) {
  // A broken pipe must show up as a failed write, not kill the test.
  ::signal(SIGPIPE, SIG_IGN);
  size_t offset = 0;
  while (offset < bytes.size()) {
    const ssize_t n = ::write(stdin_fd_, bytes.data() + offset, bytes.size() - offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    offset += static_cast<size_t>(n);
  }
  return true;
}

void HostProcess::CloseStdin() { CloseFd(stdin_fd_); }

void HostProcess::CloseStdout() {
  CloseFd(stdout_fd_);
  stdout_closed_ = true;
}

bool HostProcess::FillStdout(std::chrono::steady_clock::time_point deadline) {
  if (stdout_closed_) return false;
  const auto now = std::chrono::steady_clock::now();
  if (now >= deadline) return false;
  pollfd p{stdout_fd_, POLLIN, 0};
  const auto wait_ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
  const int ready = ::poll(&p, 1, static_cast<int>(wait_ms));
  if (ready <= 0) return false;
  char buffer[65536];
  const ssize_t n = ::read(stdout_fd_, buffer, sizeof(buffer));
  if (n <= 0) {
    stdout_closed_ = true;
    return false;
  }
  stdout_buffer_.append(buffer, static_cast<size_t>(n));
  return true;
}

std::optional<std::string> HostProcess::ReadLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const size_t newline = stdout_buffer_.find('\n');
    if (newline != std::string::npos) {
      std::string line = stdout_buffer_.substr(0, newline);
      stdout_buffer_.erase(0, newline + 1);
      return line;
    }
    if (!FillStdout(deadline)) return std::nullopt;
  }
}

nlohmann::json HostProcess::Call(const nlohmann::json& request) {
  if (!Write(request.dump() + "\n")) {
    throw std::runtime_error("host stdin closed");
  }
  const auto line = ReadLine();
  if (!line.has_value()) {
    throw std::runtime_error("host gave no answer");
  }
  return nlohmann::json::parse(*line);
}

std::string HostProcess::ReadRemainingStdout(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (FillStdout(deadline)) {
  }
  return std::exchange(stdout_buffer_, std::string());
}

ExitStatus HostProcess::Wait(std::chrono::milliseconds timeout) {
  if (status_.has_value()) return *status_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ExitStatus result;
  if (WIFEXITED(status)) {
    result.exited = true;
    result.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
    result.core_dumped = WCOREDUMP(status);
  }
  status_ = result;
  return result;
}

std::string HostProcess::Stderr() {
  std::string all;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(stderr_fd_, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    all.append(buffer, static_cast<size_t>(n));
  }
  return all;
}

}  // namespace quay_test
