// Many call sequences in a row, by one process or several, each watched by a process that survives
// what the engine does to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qx_test {

struct SeriesOptions {
  std::uint64_t first_seed = 1;
  std::uint64_t sequences = 1000;
  std::uint64_t calls = 0;  // if not 0: as many call sequences as make this many compared calls
  std::uint64_t workers = 1;
  bool progress = false;  // a line each minute
  bool trace = false;
};

struct SeriesResult {
  std::uint64_t sequences = 0;
  std::uint64_t last_seed = 0;
  std::int64_t compared = 0;
  std::int64_t made = 0;
  std::int64_t functions = 0;  // how many different ones were called
  double seconds = 0;
  std::optional<std::uint64_t> failed_seed;
  std::string failure;
};

// Plays call sequences from `first_seed` on, without a gap, until enough are played or one fails.
SeriesResult play_series(const SeriesOptions& options);

// Plays call sequences of failing calls in children until the call sequence of the seed is as small
// as it gets. Returns a replay; empty if the call sequence does not fail again.
std::string shrunk_replay(std::uint64_t seed, const std::string& failure);

}  // namespace qx_test
