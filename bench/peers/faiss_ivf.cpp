#include "peers/faiss_ivf.h"

#include <faiss/IndexFlat.h>
#include <faiss/IndexIVFFlat.h>

#include <algorithm>
#include <cstddef>

namespace bench {

struct FaissIvf::Parts {
  Parts(std::int64_t dim, std::int64_t nlist)
      : quantizer(dim),
        index(&quantizer, static_cast<std::size_t>(dim), static_cast<std::size_t>(nlist),
              faiss::METRIC_INNER_PRODUCT) {}

  faiss::IndexFlatIP quantizer;
  faiss::IndexIVFFlat index;
  std::vector<float> scores;
  Ids rows;
};

FaissIvf::FaissIvf(const Matrix& matrix, std::int64_t nlist)
    : parts_(std::make_unique<Parts>(matrix.dim, nlist)) {
  // Both programs search the same lists, so how good the centroids are does not matter: a short
  // training is enough.
  constexpr std::int64_t kRowsPerCentroid = 40;
  parts_->index.cp.niter = 4;
  parts_->index.cp.min_points_per_centroid = 1;
  parts_->index.train(std::min(matrix.rows, nlist * kRowsPerCentroid), matrix.values);
  parts_->index.add(matrix.rows, matrix.values);
}

FaissIvf::~FaissIvf() = default;

Lists FaissIvf::lists() const {
  const faiss::InvertedLists& stored = *parts_->index.invlists;
  Lists lists;
  const float* const centroids = parts_->quantizer.get_xb();
  lists.centroids.assign(centroids, centroids + parts_->quantizer.ntotal * parts_->quantizer.d);
  lists.offsets.push_back(0);
  for (std::size_t list = 0; list < stored.nlist; ++list) {
    faiss::InvertedLists::ScopedIds ids(&stored, list);
    lists.rows.insert(lists.rows.end(), ids.get(), ids.get() + stored.list_size(list));
    lists.offsets.push_back(count32_of(lists.rows));
  }
  return lists;
}

void FaissIvf::set_nprobe(std::int64_t nprobe) {
  parts_->index.nprobe = static_cast<std::size_t>(nprobe);
}

const Ids& FaissIvf::search(const float* query, std::int64_t k) {
  parts_->scores.resize(static_cast<std::size_t>(k));
  parts_->rows.resize(static_cast<std::size_t>(k));
  parts_->index.search(1, query, k, parts_->scores.data(), parts_->rows.data());
  return parts_->rows;
}

Ids FaissIvf::probed(const float* query, std::int64_t nprobe) const {
  std::vector<float> scores(static_cast<std::size_t>(nprobe));
  Ids lists(static_cast<std::size_t>(nprobe));
  parts_->quantizer.search(1, query, nprobe, scores.data(), lists.data());
  return lists;
}

}  // namespace bench
