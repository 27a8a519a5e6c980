#include "read/ivf_probe.h"

#include <algorithm>
#include <numeric>

#include "read/id_list.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

// Lists that are chosen in one pass over the scores of the centroids, and scores of one offer.
constexpr std::int64_t kListsPerPass = 48;
constexpr std::int64_t kOffered = 192;

Array<float> score_centroids(const QxIndex& index, const QxIvf& ivf, const float* query) {
  const std::int64_t dim = dim_of(index);
  const float* const centroids = dim == 0 ? nullptr : ivf.centroids.range(0, dim * ivf.nlist);
  auto scores = Array<float>::of_length(ivf.nlist);
  score_vectors(centroids, ivf.nlist, dim, query, scores.data);
  return scores;
}

// Chooses the best lists that have not been chosen, and takes their scores away. Fills `lists`,
// best first, kEmptyId where none is left: a list whose score is a NaN or <= kEmptyScore is never
// chosen, and among equal scores the first list comes first.
void choose_lists(Array<float>& scores, std::int64_t wanted, std::int64_t* lists) {
  in_default_fp_environment([&] {
    float best_scores[kListsPerPass];
    TopK best(lists, best_scores, wanted);
    for (std::int64_t first = 0; first < scores.length; first += kOffered) {
      std::int64_t numbers[kOffered];
      const std::int64_t count = std::min(kOffered, scores.length - first);
      std::iota(numbers, numbers + count, first);
      best.offer(scores.data + first, numbers, count);
    }
    best.finish();
  });
  for (std::int64_t i = 0; i < wanted && lists[i] >= 0; ++i) scores.data[lists[i]] = kEmptyScore;
}

void add_list(const QxIndex& index, const QxIvf& ivf, std::int64_t list, Scan& scan) {
  const std::int64_t begin = ivf.list_offsets.at(list);
  const std::int64_t count = ivf.list_offsets.at(list + 1) - begin;
  if (count >= 1) add_base_rows(index, ivf.list_ids.range(begin, count), count, scan);
}

}  // namespace

void add_best_lists(const QxIndex& index, const QxIvf& ivf, const float* query, Scan& scan) {
  Array<float> scores = score_centroids(index, ivf, query);
  for (std::int64_t left = ivf.nprobe; left > 0; left -= kListsPerPass) {
    std::int64_t lists[kListsPerPass];
    const std::int64_t wanted = std::min(left, kListsPerPass);
    choose_lists(scores, wanted, lists);
    for (std::int64_t i = 0; i < wanted; ++i) {
      if (lists[i] < 0) return;
      add_list(index, ivf, lists[i], scan);
    }
  }
}

}  // namespace qx
