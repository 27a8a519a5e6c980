// A progress bar for work that takes a while. On a terminal it is one line of standard error,
// drawn in place and erased at the end; elsewhere a plain line appears every few seconds, and
// none for short work. Nothing is written to standard output.
#ifndef WORDS_PROGRESS_H
#define WORDS_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
 public:
  // title  what is being done; total  the amount of work, in any unit, at least 1.
  Progress(std::string title, std::int64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Reports how much of the total is done. Cheap enough for an inner loop's outer step.
  void update(std::int64_t done);
  // Reports one more unit.
  void advance() { update(done_ + 1); }

 private:
  using Clock = std::chrono::steady_clock;

  void draw_bar(int percent);

  std::string title_;
  std::int64_t total_;
  std::int64_t done_ = 0;
  bool on_terminal_;
  bool drawn_ = false;
  Clock::time_point next_;
};

#endif
