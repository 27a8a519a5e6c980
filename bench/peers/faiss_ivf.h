// Faiss, IndexIVFFlat by inner product; and what it learned, so that the library can search the
// same lists under the same centroids.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "harness/data.h"
#include "peers/flat.h"

namespace bench {

// Lists of rows under centroids, list after list.
struct Lists {
  std::vector<float> centroids;       // nlist x dim
  Ids rows;                           // every row of the matrix once
  std::vector<std::int32_t> offsets;  // nlist + 1
};

class FaissIvf {
 public:
  // Trains the centroids on a part of the rows and assigns all rows.
  FaissIvf(const Matrix& matrix, std::int64_t nlist);
  FaissIvf(const FaissIvf&) = delete;
  FaissIvf& operator=(const FaissIvf&) = delete;
  ~FaissIvf();

  Lists lists() const;
  void set_nprobe(std::int64_t nprobe);

  // The k best rows of the probed lists.
  const Ids& search(const float* query, std::int64_t k);

  // The lists that a search with this query probes, best first.
  Ids probed(const float* query, std::int64_t nprobe) const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace bench
