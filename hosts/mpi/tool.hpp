// What qx-mpi was asked to do, and its collection, loaded from files that no rank needs to hold
// whole.
#pragma once

#include <map>
#include <utility>

#include "sharded_collection.hpp"

namespace qx::mpi {

struct Options {
  std::map<std::string, std::string> given = {
      {"--k", "10"}, {"--batch", "64"}, {"--threads", "0"}, {"--measure", "0"}};
  std::vector<std::pair<std::string, std::string>> integers;  // names and files of columns

  bool has(const std::string& name) const { return given.contains(name); }
  std::string text(const std::string& name) const { return has(name) ? given.at(name) : ""; }
  std::int64_t number(const std::string& name) const { return std::stoll(given.at(name)); }
};

// The rows of the files, or those that were saved, changed as the options say.
std::unique_ptr<ShardedCollection> load_collection(const Options& options,
                                                   const Communicator& world);

// All vectors of a file, on rank 0; none elsewhere. They must have the collection's dimension.
std::vector<float> read_vectors(const std::string& path, const ShardedCollection& collection);

}  // namespace qx::mpi
