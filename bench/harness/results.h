// Where results go: one JSON object a line into a file, one short line on standard error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "harness/measure.h"

namespace bench {

using LabelValue = std::variant<std::int64_t, double, std::string>;

// What distinguishes a case from the others of its section, such as {"dim", 128}.
using Labels = std::vector<std::pair<std::string, LabelValue>>;

// One case: the same work by several contestants.
struct Case {
  std::string section;
  Labels labels;
  std::int64_t bytes;  // what one run has to read, 0 if that is not the point
  std::int64_t items;  // rows, ids or entries of one run
};

class Results {
 public:
  // Writes to `path`, replacing what is there; a file that cannot be written ends the program.
  explicit Results(const std::string& path);
  Results(const Results&) = delete;
  Results& operator=(const Results&) = delete;
  ~Results();

  void add(const Case& measured, const std::vector<Timing>& timings);

  // A figure that is no time, such as bytes per entry.
  void add_figure(const Case& measured, const std::string& name, double value);

  // The first line: how the whole run was made.
  void add_header(const Labels& labels);

 private:
  void write_line(const std::string& line);

  std::FILE* file_;
};

}  // namespace bench
