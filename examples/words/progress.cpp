#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

constexpr int kBarWidth = 40;
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::seconds kNextLine{5};

}  // namespace

Progress::Progress(std::string title, std::int64_t total)
    : title_(std::move(title)),
      total_(std::max<std::int64_t>(total, 1)),
      on_terminal_(isatty(STDERR_FILENO) == 1),
      next_(Clock::now()) {
  // What has been printed so far comes before any progress, where both go to one place.
  std::fflush(stdout);
  if (on_terminal_) {
    next_ += kRedraw;
  } else {
    next_ += kNextLine;
  }
}

Progress::~Progress() {
  if (drawn_) std::fputs("\r\033[K", stderr);
}

void Progress::update(std::int64_t done) {
  done_ = done;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  const double share = static_cast<double>(done) / static_cast<double>(total_);
  const int percent = static_cast<int>(std::clamp(share, 0.0, 1.0) * 100);
  if (on_terminal_) {
    next_ = now + kRedraw;
    draw_bar(percent);
  } else {
    next_ = now + kNextLine;
    std::fprintf(stderr, "%s: %d%%\n", title_.c_str(), percent);
  }
}

void Progress::draw_bar(int percent) {
  const int filled = percent * kBarWidth / 100;
  const std::string bar(static_cast<std::size_t>(filled), '#');
  std::fprintf(stderr, "\r%s [%-*s] %3d%%", title_.c_str(), kBarWidth, bar.c_str(), percent);
  drawn_ = true;
}
