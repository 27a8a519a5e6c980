// What qx-mpi was asked to do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qx {

struct Options {
  std::string vectors;
  std::string ids;
  std::string labels;
  std::string queries;
  std::string insert;
  std::string insert_ids;
  std::string erase;
  std::int64_t k = 10;
  std::int64_t batch = 64;
  std::int64_t measure = 0;  // seconds of each measurement, or 0 to print results
  bool exact = false;
  std::optional<std::int64_t> label;
  std::int64_t lists = 0;  // to be learned and searched, or 0
  std::int32_t probes = 8;
  bool help = false;
};

extern const char* const kUsage;

// Throws InvalidArgument for what it does not know.
Options read_options(int count, char** arguments);

}  // namespace qx
