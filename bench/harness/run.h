// One run of the benchmark: what its options ask for, and where its results go: one JSON object a
// line into a file, one short line on standard error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "harness/measure.h"

namespace bench {

// What distinguishes a case from the others of its section, such as {"dim", 128}.
using LabelValue = std::variant<std::int64_t, double, std::string>;
using Labels = std::vector<std::pair<std::string, LabelValue>>;

class Run {
 public:
  // `kernel` is the one that every section runs on; empty for the CPU's own choice. The file at
  // `path` is replaced; one that cannot be written ends the program.
  Run(bool quick, std::string kernel, const std::string& path);
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() { std::fclose(file_); }

  // What a section chooses by: the usual value, or the one that --quick makes do with.
  template <typename T>
  T pick(T usual, T quick_one) const {
    return quick_ ? quick_one : usual;
  }
  Effort effort() const { return pick(Effort{15, 0.003, 3.0}, Effort{5, 0.001, 0.3}); }

  // Makes the engine call the kernel of this run again, and choose its judges, after others were
  // forced.
  void use_chosen_kernel() const;

  // The first line of the results: how the whole run was made.
  void add_header(const std::string& kernels);

  // The cases that follow are of this section.
  void begin(const char* section) { section_ = section; }

  // A case: times the same work by several contestants, and stores the result. One run of them has
  // to read `bytes`, 0 if that is not the point, and handles `items` rows, ids or entries.
  void compare(const Labels& labels, std::int64_t bytes, std::int64_t items,
               const Contestants& contestants) {
    add(labels, bytes, items, time_rounds(contestants, effort()));
  }
  void add(const Labels& labels, std::int64_t bytes, std::int64_t items,
           const std::vector<Timing>& timings);

  // A case whose figure is no time, such as bytes per entry.
  void add_figure(const Labels& labels, std::int64_t items, const std::string& name, double value);

 private:
  void write(const Labels& labels, std::int64_t bytes, std::int64_t items, const std::string& what,
             const std::string& standing);
  void write_line(const std::string& line);

  bool quick_;
  std::string kernel_;
  std::string section_;
  std::FILE* file_;
};

}  // namespace bench
