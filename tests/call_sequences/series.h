// Plays many call sequences, in one process or several, each watched by a process that survives any
// failure of the engine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qx_test {

struct SeriesOptions {
  std::uint64_t first_seed = 1;
  std::uint64_t sequences = 1000;
  std::uint64_t calls = 0;  // if not 0: play until this many calls are compared
  std::uint64_t workers = 1;
  bool progress = false;  // a line each minute
  bool trace = false;
};

struct SeriesResult {
  std::uint64_t sequences = 0;
  std::uint64_t last_seed = 0;
  std::int64_t compared = 0;
  std::int64_t made = 0;
  std::int64_t functions = 0;  // number of different functions called
  double seconds = 0;
  std::optional<std::uint64_t> failed_seed;
  std::string failure;
};

// Plays the call sequences of consecutive seeds from `first_seed` on, until enough are played or
// one fails.
SeriesResult play_series(const SeriesOptions& options);

// Shrinks the call sequence of a seed, each attempt in a child process, as long as it fails.
// Returns a replay; empty if the call sequence does not fail again.
std::string shrunk_replay(std::uint64_t seed, const std::string& failure);

}  // namespace qx_test
