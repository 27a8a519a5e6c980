// hnswlib, BruteforceSearch. Its headers choose SIMD at compile time, so this file is compiled for
// the machine that it runs on. They define plain functions: no other file may include them.
#include <hnswlib/hnswlib.h>

#include "peers/peers.h"

namespace bench {
namespace {

struct Parts {
  explicit Parts(const Matrix& matrix)
      : space(static_cast<std::size_t>(matrix.dim)),
        index(&space, static_cast<std::size_t>(matrix.rows)) {
    for (std::int64_t r = 0; r < matrix.rows; ++r) {
      index.addPoint(matrix.values + r * matrix.dim, static_cast<hnswlib::labeltype>(r));
    }
  }

  hnswlib::InnerProductSpace space;
  hnswlib::BruteforceSearch<float> index;
};

}  // namespace

// The library ranks by 1 - inner product, worst first.
FlatPeer hnswlib_flat(const Matrix& matrix, std::int64_t k) {
  return {"hnswlib BruteforceSearch", [parts = std::make_shared<Parts>(matrix),
                                       most = static_cast<std::size_t>(k)](const float* query) {
            auto found = parts->index.searchKnn(query, most);
            while (found.size() > 1) found.pop();
            return 1.0f - found.top().first;
          }};
}

}  // namespace bench
