// Faiss, IndexFlatIP. Debian compiles it for the oldest x86-64, without AVX.
#include <faiss/IndexFlat.h>

#include "peers/peers.h"

namespace bench {

FlatPeer faiss_flat(const Matrix& matrix, std::int64_t k) {
  const auto index = std::make_shared<faiss::IndexFlatIP>(matrix.dim);
  index->add(matrix.rows, matrix.values);
  return {"Faiss IndexFlatIP", [index, found = Slots(k)](const float* query) mutable {
            index->search(1, query, found.k, found.scores.data(), found.ids.data());
            return found.scores.front();
          }};
}

}  // namespace bench
