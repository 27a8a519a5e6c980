#include "read/id_lists.h"

#include <numeric>

#include "kernels/tuning.h"
#include "read/visibility.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

// Lists that are chosen in one pass over the scores of the centroids, and scores of one offer.
constexpr std::int64_t kListsPerPass = 48;
constexpr std::int64_t kOffered = 192;

// True if ids[0..count) are the ids of base rows first..first+count, as in the lists of a base that
// was built in list order. The ids of rows are cheaper to compare than to look up.
bool are_consecutive_rows(const QxIndex& index, std::int64_t first, const std::int64_t* ids,
                          std::int64_t count) {
  return first >= 0 && count <= index.n_base - first && index.duplicate_rows.length == 0 &&
         std::equal(ids, ids + count, index.base_ids + first);
}

Array<float> score_centroids(const QxIndex& index, const QxIvf& ivf, const float* query) {
  const std::int64_t dim = dim_of(index);
  const std::int64_t n_floats = dim * ivf.nlist;
  const float* const centroids = dim == 0 ? nullptr : ivf.centroids.range(0, n_floats);
  auto scores = Array<float>::of_length(ivf.nlist);
  const CacheLevel level = tuning::cache_level(n_floats * std::int64_t{sizeof(float)});
  in_default_fp_environment(
      [&] { kernels().score_contiguous(centroids, ivf.nlist, dim, query, level, scores.data); });
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

}  // namespace

void add_visible_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count,
                      Scan& scan) {
  Visibility visibility(index);
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    Row rows[kMaskRows];
    const std::int64_t batch = std::min(kMaskRows, count - first);
    const std::uint64_t found = visibility.find(ids + first, batch, rows);
    for_each_bit(found, [&](std::int64_t i) { scan.add(rows[i], ids[first + i]); });
  }
}

void add_base_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count, Scan& scan) {
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    const std::int64_t end = std::min(first + kMaskRows, count);
    const std::int64_t row = base_row_of(index, ids[first]);
    if (are_consecutive_rows(index, row, ids + first, end - first)) {
      scan.add_base_rows(row, end - first, ids + first);
      continue;
    }
    const std::int64_t next_end = std::min(end + kMaskRows, count);
    for (std::int64_t i = end; i < next_end; ++i) prefetch_base_row_of(index, ids[i]);
    for (std::int64_t i = first; i < end; ++i) {
      const std::int64_t listed = base_row_of(index, ids[i]);
      if (listed >= 0) scan.add(Row{false, listed}, ids[i]);
    }
  }
}

void add_best_lists(const QxIndex& index, const QxIvf& ivf, const float* query, Scan& scan) {
  const QxMembers& members = members_of(index, ivf);
  Array<float> scores = score_centroids(index, ivf, query);
  for (std::int64_t left = ivf.nprobe; left > 0; left -= kListsPerPass) {
    std::int64_t lists[kListsPerPass];
    const std::int64_t wanted = std::min(left, kListsPerPass);
    choose_lists(scores, wanted, lists);
    for (std::int64_t i = 0; i < wanted; ++i) {
      if (lists[i] < 0) return;
      const std::int64_t begin = ivf.list_offsets.at(lists[i]);
      const std::int64_t count = ivf.list_offsets.at(lists[i] + 1) - begin;
      if (count < 1) continue;
      const std::int64_t* const ids = ivf.list_ids.range(begin, count);
      if (members.first_row >= 0) {
        scan.add_base_rows(members.first_row + begin, count, ids);
      } else if (members.rows != nullptr) {
        scan.add_members(members, begin, count, ids);
      } else {
        add_base_rows(index, ids, count, scan);
      }
    }
  }
}

}  // namespace qx
