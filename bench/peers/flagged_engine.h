// The library a second time, compiled with -mavx2 -mfma and on its portable kernel: what it does
// where the compiler may use these instructions, but no kernel was written for them.
#pragma once

#include <cstdint>

#include "peers/flat.h"

namespace bench {

class FlaggedEngine {
 public:
  explicit FlaggedEngine(const Matrix& matrix);
  FlaggedEngine(const FlaggedEngine&) = delete;
  FlaggedEngine& operator=(const FlaggedEngine&) = delete;
  ~FlaggedEngine();

  // Finds the k best rows of the matrix; returns the best score.
  float search(const float* query, std::int64_t k);

 private:
  QxIndex* index_;
  std::vector<float> scores_;
  Ids ids_;
};

}  // namespace bench
