// How this run is made: what the options ask for, and how much effort follows from it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "harness/measure.h"
#include "harness/results.h"

namespace bench {

struct Settings {
  bool quick = false;
  std::string kernel;  // the kernel that every section runs on; empty for the CPU's own choice

  // What a section chooses by: the usual value, or the one that --quick makes do with.
  template <typename T>
  T pick(T usual, T quick_one) const {
    return quick ? quick_one : usual;
  }

  Effort effort() const { return quick ? Effort{5, 0.001, 0.3} : Effort{15, 0.003, 3.0}; }
};

// Makes the engine call the kernel of this run again, after another one was forced.
void use_chosen_kernel(const Settings& settings);

// Times the contestants of a case and stores the result.
void compare(const Settings& settings, Results& results, const Case& measured,
             const std::vector<Contestant>& contestants);

}  // namespace bench
