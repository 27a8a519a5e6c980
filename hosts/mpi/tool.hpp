// What qx-mpi was asked to do, and its index, loaded from files that no rank needs to hold whole.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sharded_index.hpp"

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

// The key of the lists that --ivf learns.
inline constexpr std::int64_t kLearnedLists = 0;

// The rows of the files, changed and with labels and lists, as the options say.
std::unique_ptr<ShardedIndex> load_index(const Options& options, const Communicator& world);

// All vectors of a file, on rank 0; none elsewhere. They must have the index's dimension.
std::vector<float> read_vectors(const std::string& path, const ShardedIndex& index);

}  // namespace qx
