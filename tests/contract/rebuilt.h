// Indexes whose dimension changes while vectors of another one are stored.
#pragma once

#include "support/cases.h"

namespace qx_test {

// Delta rows 11, 12, 13 of dimension 2 (six floats) and two centroids of it (four), read under
// another dimension.
class Rebuilt : public Index {
 public:
  explicit Rebuilt(std::int32_t dim) : Index(2) {
    insert(*this, {11, 12, 13}, {1, 2, 3, 4, 5, 6});
    set_rowmeta(*this, {11, 12, 13}, {1, 2, 3}, {}, 0);
    set_ivf(*this, 7, {2, 1, {1, 2, 3, 4}, {5, 6}, {0, 1, 2}});
    seal(*this, dim, {5, 6}, Floats(2 * static_cast<std::size_t>(dim), 1));
  }
};

// The same of dimension 0, where nothing is stored, read under dimension 2.
class RebuiltFromZero : public Index {
 public:
  RebuiltFromZero() : Index(0) {
    insert(*this, {11}, {});
    set_ivf(*this, 7, {1, 1, {}, {5}, {0, 1}});
    seal(*this, 2, {5}, {1, 2});
  }
};

}  // namespace qx_test
