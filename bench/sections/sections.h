// The sections of the benchmark: each measures one kind of work in a file of its own.
#pragma once

#include "harness/run.h"

namespace bench {

struct Section {
  const char* name;
  const char* what;
  void (*run)(Run& run);
};

namespace sections {
extern const Section scan, candidates, walk, match, filtered, ivf, topk, mutation, keys, header,
    environment, readers;
}

}  // namespace bench
