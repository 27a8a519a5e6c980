// Faiss, IndexFlatIP. Debian compiles it for the oldest x86-64, without AVX.
#include <faiss/IndexFlat.h>

#include <memory>
#include <vector>

#include "peers/flat.h"

namespace bench {
namespace {

class FaissFlat : public FlatPeer {
 public:
  explicit FaissFlat(const Matrix& matrix) : index_(matrix.dim) {
    index_.add(matrix.rows, matrix.values);
  }

  const char* name() const override { return "Faiss IndexFlatIP"; }

  float search(const float* query, std::int64_t k) override {
    scores_.resize(static_cast<std::size_t>(k));
    rows_.resize(static_cast<std::size_t>(k));
    index_.search(1, query, k, scores_.data(), rows_.data());
    return scores_.front();
  }

 private:
  faiss::IndexFlatIP index_;
  std::vector<float> scores_;
  std::vector<faiss::Index::idx_t> rows_;
};

}  // namespace

std::unique_ptr<FlatPeer> make_faiss_flat(const Matrix& matrix) {
  return std::make_unique<FaissFlat>(matrix);
}

}  // namespace bench
