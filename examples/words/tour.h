// The demonstration: every function of the engine, used where a host would use it.
#ifndef WORDS_TOUR_H
#define WORDS_TOUR_H

#include <cstdint>

#include "word_search.h"

struct TourOptions {
  std::int32_t k = 10;      // neighbours shown
  std::int32_t probes = 0;  // 0 for the suitable number
};

// Builds everything in a search that has nothing built yet, and walks through it step by step.
// Leaves the search ready for more questions. Returns false if two answers that must be the same
// bit for bit are not; the difference has been printed then.
bool run_tour(WordSearch& search, const TourOptions& options);

#endif
