// IVF structures, stored as the host gives them, and the search through one of them. It sees the
// sealed base alone.
#include <algorithm>
#include <numeric>

#include "qx_index.h"
#include "rows.h"
#include "scan.h"
#include "support/bits.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

// Lists chosen in one pass over the scores of the centroids: their places are on the stack.
constexpr std::int64_t kListsPerPass = 48;

void release_arrays(QxIvf& ivf) {
  ivf.centroids.release();
  ivf.list_ids.release();
  ivf.list_offsets.release();
}

// The structure of a key, or null. A negative position would mean none.
QxIvf* find_ivf(QxIndex& index, std::int64_t key) {
  const std::int64_t position = index.ivf_map.get(key, -1);
  return position < 0 ? nullptr : &index.ivf_list.at(position);
}
const QxIvf* find_ivf(const QxIndex& index, std::int64_t key) {
  return find_ivf(const_cast<QxIndex&>(index), key);
}

// The score of every centroid. The caller releases the array, the only one that a read allocates.
Array<float> score_centroids(const QxIvf& ivf, std::int64_t width, const float* query) {
  const float* const centroids = width == 0 ? nullptr : ivf.centroids.range(0, width * ivf.nlist);
  Array<float> scores;
  scores.data = static_cast<float*>(allocate(ivf.nlist, sizeof(float)));
  scores.length = scores.capacity = ivf.nlist;
  score_contiguous(centroids, ivf.nlist, width, query, scores.data);
  return scores;
}

// Chooses the best lists among those not chosen yet, and takes their scores away, so that they are
// not chosen again. Fills `lists`, best first, -1 where none is left: a list whose score is a NaN
// or not above kEmptyScore is never chosen, and among equal scores the first list comes first.
void choose_lists(Array<float>& scores, std::int64_t wanted, std::int64_t* lists) {
  in_default_fp_environment([&] {
    float best_scores[kListsPerPass];
    TopK best(lists, best_scores, wanted);
    for (std::int64_t first = 0; first < scores.length; first += kBlockRows) {
      std::int64_t numbers[kBlockRows];
      const std::int64_t count = std::min(kBlockRows, scores.length - first);
      std::iota(numbers, numbers + count, first);
      best.offer(scores.data + first, numbers, count);
    }
    best.finish();
  });
  for (std::int64_t i = 0; i < wanted && lists[i] >= 0; ++i) scores.data[lists[i]] = kEmptyScore;
}

// Whether some ids are those of as many base rows that lie one after the other, from `first` on: as
// where the base lies in the order of the lists. The rows' ids are cheaper to compare than to look
// up.
bool are_rows_from(const QxIndex& index, std::int64_t first, const std::int64_t* ids,
                   std::int64_t count) {
  return first >= 0 && count <= index.n_base - first && superseded_rows(index).empty() &&
         std::equal(ids, ids + count, index.base_ids + first);
}

// Adds the members of a list that have a base row.
void add_list(const QxIndex& index, const QxIvf& ivf, std::int64_t list, Scan& scan) {
  const std::int64_t begin = ivf.list_offsets.at(list);
  const std::int64_t count = ivf.list_offsets.at(list + 1) - begin;
  if (count < 1) return;
  const std::int64_t* const ids = ivf.list_ids.range(begin, count);
  for (std::int64_t first = 0; first < count; first += Scan::kMaskRows) {
    const std::int64_t end = std::min(first + Scan::kMaskRows, count);
    const std::int64_t row = base_row_of(index, ids[first]);
    if (are_rows_from(index, row, ids + first, end - first)) {
      scan.add_masked(base_vector(index, row), ids + first, end - first, first_bits(end - first),
                      index.n_base);
      continue;
    }
    const std::int64_t next_end = std::min(end + Scan::kMaskRows, count);
    for (std::int64_t i = end; i < next_end; ++i) prefetch_base_row_of(index, ids[i]);
    for (std::int64_t i = first; i < end; ++i) {
      const std::int64_t member = base_row_of(index, ids[i]);
      if (member >= 0) scan.add(base_vector(index, member), ids[i], true);
    }
  }
}

// Adds the members of the nprobe best lists, best list first.
void add_best_lists(const QxIndex& index, const QxIvf& ivf, Array<float>& scores, Scan& scan) {
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

}  // namespace

void release_ivf(QxIndex& index) {
  index.ivf_map.release();
  for (std::int64_t i = 0; i < index.ivf_list.length; ++i) release_arrays(index.ivf_list.at(i));
  index.ivf_list.release();
}

}  // namespace qx

int32_t qx_index_set_ivf(QxIndex* index, int64_t key, int32_t nlist, int32_t nprobe,
                         const float* centroids, const int64_t* list_ids,
                         const int32_t* list_offsets, int32_t n_ids) {
  const std::int64_t n_floats = std::int64_t{static_cast<std::int32_t>(index->dim)} * nlist;
  const QxIvf attached{
      .nlist = nlist,
      .nprobe = nprobe,
      .centroids = qx::Array<float>::copy_of(centroids, n_floats),
      .list_ids = qx::Array<std::int64_t>::copy_of(list_ids, n_ids),
      .list_offsets = qx::Array<std::int32_t>::copy_of(list_offsets, std::int64_t{nlist} + 1)};
  if (QxIvf* const present = qx::find_ivf(*index, key)) {
    qx::release_arrays(*present);
    *present = attached;
  } else {
    index->ivf_map.assign(key, index->ivf_list.length);
    index->ivf_list.append(attached);
  }
  return 0;
}

int32_t qx_index_has_ivf(const QxIndex* index, int64_t key) {
  return qx::find_ivf(*index, key) == nullptr ? 0 : 1;
}

int32_t qx_index_clear_ivf(QxIndex* index) {
  qx::release_ivf(*index);
  return 0;
}

int64_t qx_index_set_ivf_nprobe(QxIndex* index, int64_t key, int32_t nprobe) {
  QxIvf* const ivf = qx::find_ivf(*index, key);
  if (ivf == nullptr) return -1;
  ivf->nprobe = nprobe;
  return 0;
}

int32_t qx_index_search_ivf(const QxIndex* index, int64_t key, const float* query, int32_t k,
                            int64_t* out_ids, float* out_scores) {
  const QxIvf* const ivf = qx::find_ivf(*index, key);
  if (ivf == nullptr || k < 1 || ivf->nlist < 1) return 0;
  const std::int64_t width = qx::row_width(*index);
  qx::TopK topk(out_ids, out_scores, k);
  qx::Scan scan({query, width, ivf->list_ids.length, qx::base_magnitude(*index)}, topk);
  qx::Array<float> coarse = qx::score_centroids(*ivf, width, query);
  qx::add_best_lists(*index, *ivf, coarse, scan);
  scan.finish();
  coarse.release();
  return k;
}
