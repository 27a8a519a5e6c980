// How far long work is, on standard error: on a terminal a line that is erased at the end,
// elsewhere a line every few seconds, and none for short work.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

class Progress {
 public:
  Progress(std::string title, std::size_t total) : title_(std::move(title)), total_(total) {}
  ~Progress() {
    if (terminal_) std::fputs("\r\033[K", stderr);
  }
  Progress(Progress&&) = delete;

  void advance() {
    if (++done_ % 16 != 0 || Clock::now() < next_) return;
    next_ = Clock::now() + pause_;
    std::fprintf(stderr, "%s%s: %zu%%%s", terminal_ ? "\r" : "", title_.c_str(),
                 done_ * 100 / total_, terminal_ ? "" : "\n");
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::string title_;
  std::size_t total_;
  std::size_t done_ = 0;
  bool terminal_ = isatty(STDERR_FILENO) == 1;
  std::chrono::milliseconds pause_{terminal_ ? 100 : 5000};
  Clock::time_point next_ = Clock::now() + pause_;
};
