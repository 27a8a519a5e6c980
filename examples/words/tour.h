// The tour: what the library does, on the words, and what a call of each function costs.
#pragma once

#include <cstdint>

#include "word_index.h"

// Shows k neighbours a time, and leaves the search ready for questions.
void run_tour(WordIndex& search, std::int64_t k);
