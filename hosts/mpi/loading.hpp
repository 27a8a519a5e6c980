// The index of qx-mpi, loaded from files that no rank needs to hold whole.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "options.hpp"
#include "sharded_index.hpp"

namespace qx {

// The key of the lists that --ivf learns.
inline constexpr std::int64_t kLearnedLists = 0;

// The rows of the files, changed and with labels and lists, as the options say.
std::unique_ptr<ShardedIndex> load_index(const Options& options, const Communicator& world);

// All vectors of a file, on rank 0; none elsewhere. They must have the index's dimension.
std::vector<float> read_vectors(const std::string& path, const ShardedIndex& index);

}  // namespace qx
