// hnswlib, BruteforceSearch. Its headers choose SIMD at compile time, so this file is compiled for
// the machine that it runs on. They define plain functions: no other file may include them.
#include <hnswlib/hnswlib.h>

#include <memory>

#include "peers/flat.h"

namespace bench {
namespace {

class HnswlibFlat : public FlatPeer {
 public:
  explicit HnswlibFlat(const Matrix& matrix)
      : space_(static_cast<std::size_t>(matrix.dim)),
        index_(&space_, static_cast<std::size_t>(matrix.rows)) {
    for (std::int64_t r = 0; r < matrix.rows; ++r) {
      index_.addPoint(matrix.values + r * matrix.dim, static_cast<hnswlib::labeltype>(r));
    }
  }

  const char* name() const override { return "hnswlib BruteforceSearch"; }

  // The library ranks by 1 - inner product, worst first.
  float search(const float* query, std::int64_t k) override {
    auto found = index_.searchKnn(query, static_cast<std::size_t>(k));
    while (found.size() > 1) found.pop();
    return 1.0f - found.top().first;
  }

 private:
  hnswlib::InnerProductSpace space_;
  hnswlib::BruteforceSearch<float> index_;
};

}  // namespace

std::unique_ptr<FlatPeer> make_hnswlib_flat(const Matrix& matrix) {
  return std::make_unique<HnswlibFlat>(matrix);
}

}  // namespace bench
