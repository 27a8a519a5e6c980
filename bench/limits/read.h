// The limit of every scan: the same bytes merely read by one core. No search that looks at all of
// its data can be faster.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "harness/measure.h"

namespace bench {

struct ReadLoop {
  const char* name;
  // Reads all bytes with the widest loads there are, and returns something that depends on them.
  std::uint64_t (*read)(const void* data, std::size_t bytes);
};

// The loops that run here. Which one is fastest depends on the machine and on where the data is, so
// all of them are timed and the fastest is the limit.
const std::vector<ReadLoop>& read_loops();

// One contestant a loop. `data` must outlive them.
void add_read_limits(std::vector<Contestant>& contestants, const void* data, std::size_t bytes);

}  // namespace bench
