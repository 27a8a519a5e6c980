// How long each engine call took. Every call of this program is measured, by the thin wrapper in
// index.h, and recorded here by the name of the C function.
#ifndef WORDS_CALL_LOG_H
#define WORDS_CALL_LOG_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// One call: a C function of the engine and the time it took.
struct Call {
  std::string function;
  double nanoseconds = 0;
};

class CallLog {
 public:
  void record(std::string_view function, double nanoseconds);

  // The latest call. There has been one.
  const Call& last() const { return last_; }

  // The sum of the times of all calls so far, in nanoseconds.
  double total() const { return total_; }
  // The times of all calls of a function so far, in nanoseconds.
  const std::vector<double>& times(const std::string& function) const;
  std::size_t distinct_functions() const { return times_.size(); }

 private:
  std::map<std::string, std::vector<double>> times_;
  Call last_;
  double total_ = 0;
};

// Measures from its construction to its destruction, and records that under the function's name.
class CallTimer {
 public:
  CallTimer(CallLog& log, std::string_view function)
      : log_(log), function_(function), start_(Clock::now()) {}
  ~CallTimer() {
    const std::chrono::duration<double, std::nano> elapsed = Clock::now() - start_;
    log_.record(function_, elapsed.count());
  }
  CallTimer(const CallTimer&) = delete;
  CallTimer& operator=(const CallTimer&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  CallLog& log_;
  std::string_view function_;
  Clock::time_point start_;
};

// The sum of the values, and the middle one of them; 0 of none.
double sum(const std::vector<double>& values);
double median(std::vector<double> values);

#endif
