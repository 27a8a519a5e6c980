// The vectors of words, of length 1, and some of them to ask for.
#pragma once

#include <cstdint>
#include <string>

#include "harness/data.h"

namespace bench {

struct UnitWords {
  std::int64_t rows;
  std::int64_t dim;
  Floats vectors;  // rows x dim
  Floats asked;    // kAskedWords x dim
};

inline constexpr std::int64_t kAskedWords = 8;

// Requires a file of words.
UnitWords read_unit_words(const std::string& path);

}  // namespace bench
