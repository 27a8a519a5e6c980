// The sections of the benchmark: each measures one kind of work in a file of its own.
#pragma once

#include "harness/run.h"

namespace bench {

struct Section {
  const char* name;
  const char* what;
  void (*run)(Run& run);
};

extern const Section kScan, kSets, kCodes, kSearches, kGrid, kPages, kCandidates, kWalk, kMatch,
    kFiltered, kIvf, kTopk, kMutation, kKeys, kHeader, kEnvironment, kReaders;

}  // namespace bench
