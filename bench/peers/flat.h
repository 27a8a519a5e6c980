// Other programs that search all vectors: each one's own exact search by inner product, on the same
// data, one query at a time, in one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

class FlatPeer {
 public:
  FlatPeer() = default;
  FlatPeer(const FlatPeer&) = delete;
  FlatPeer& operator=(const FlatPeer&) = delete;
  virtual ~FlatPeer() = default;

  virtual const char* name() const = 0;

  // Finds the k best rows; returns the best score, for the check that all agree on it.
  virtual float search(const float* query, std::int64_t k) = 0;
};

// Row-major vectors that outlive the peer.
struct Matrix {
  const float* values;
  std::int64_t rows;
  std::int64_t dim;
};

std::unique_ptr<FlatPeer> make_faiss_flat(const Matrix& matrix);     // holds a copy
std::unique_ptr<FlatPeer> make_hnswlib_flat(const Matrix& matrix);   // holds a copy
std::unique_ptr<FlatPeer> make_openblas_flat(const Matrix& matrix);  // reads the matrix itself
std::unique_ptr<FlatPeer> make_fast_math(const Matrix& matrix);      // reads the matrix itself

using FlatPeers = std::vector<std::unique_ptr<FlatPeer>>;
FlatPeers make_flat_peers(const Matrix& matrix);

// Keeps every peer's libraries to one thread. Called once, before anything is timed.
void use_one_thread();

}  // namespace bench
