// The one owner of a file descriptor: move-only, closes what it holds once, can give it up.
#pragma once

#include <cerrno>
#include <utility>

namespace brimo_stack {

class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) noexcept : fd_(fd) {}
  ~ScopedFd() { (void)Close(); }
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.Release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) {
      (void)Close();
      fd_ = other.Release();
    }
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }
  // Closes what it held, then holds `fd`. errno stays as the call that gave `fd` left it.
  void Reset(int fd = -1) noexcept {
    const int error = errno;
    (void)Close();
    errno = error;
    fd_ = fd;
  }
  // 0, or the errno of close(2) for callers whose result depends on it (a written file). Safe in
  // a signal handler: no allocation, no lock.
  [[nodiscard]] int Close() noexcept;

 private:
  int fd_ = -1;
};

}  // namespace brimo_stack
