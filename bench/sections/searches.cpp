// Searches of some of 500 MB of rows, and of a delta, with codes beside the same without.
#include <algorithm>
#include <string>

#include "peers/absl_index.h"
#include "sections/rows.h"
#include "sections/sections.h"

namespace bench {
namespace {

class Arena {
 public:
  Arena(Run& run, std::int64_t dim)
      : run_(run),
        random_(static_cast<std::uint64_t>(dim)),
        rows_((std::int64_t{run.pick(500, 100)} << 20) / (4 * dim)),
        base_(permuted_ids(rows_, random_), dim, random_) {}

  void change(double share) { base_.change(share, random_); }

  // Lists that are fresh every time, until a sample has touched some 100 MB.
  void search_lists(const char* function, double changed, std::int64_t length) {
    const auto lists = std::max<std::int64_t>((96 << 20) / (length * base_.dim * 4), 4);
    Ids ids;
    for (std::int64_t i = 0; i < lists * length; ++i) {
      ids.push_back(base_.absl.base_ids[static_cast<std::size_t>(random_.below(rows_))]);
    }
    const QxIndex* const index = base_.index.get();
    const bool sealed = std::string(function) == "scatter_topk";
    compare(function, changed, length, [&](Slots& slots, const float* query, std::int64_t turn) {
      const std::int64_t* const list = ids.data() + turn % lists * length;
      if (!sealed) {
        slots.search_mvcc(index, list, length, query);
      } else {
        qx_index_scatter_topk(index, list, static_cast<std::int32_t>(length), query, slots.k,
                              slots.ids.data(), slots.scores.data());
      }
    });
  }

  // By labels that rows have at random.
  void search_filtered() {
    for (const std::int64_t one_of : {10, 100}) {
      Ids labels(static_cast<std::size_t>(rows_));
      for (std::int64_t& label : labels) label = random_.below(one_of);
      qx_index_set_rowmeta(base_.index.get(), base_.absl.base_ids.data(), labels.data(), nullptr, 0,
                           static_cast<std::int32_t>(rows_));
      const QxIndex* const index = base_.index.get();
      compare("search_filtered", 0, rows_ / one_of,
              [index](Slots& slots, const float* query, std::int64_t /*turn*/) {
                qx_index_search_filtered(index, QX_FILTER_LABEL, 0, 1, query,
                                         static_cast<std::uint32_t>(slots.k), slots.ids.data(),
                                         slots.scores.data());
              });
    }
  }

 private:
  void compare(const char* function, double changed, std::int64_t rows, const HostSearch& search) {
    const Queries queries(base_.dim, random_);
    run_.compare({{"function", function}, {"dim", base_.dim}, {"rows", rows}, {"changed", changed}},
                 rows * base_.dim * 4, rows, with_and_without_codes(search, queries, kResults));
    run_.use_chosen_kernel();
  }

  Run& run_;
  Random random_;
  std::int64_t rows_;
  ChangedBase base_;
};

void search_delta(Run& run, std::int64_t dim) {
  const std::int64_t rows = run.pick(100000, 20000);
  Random random(3);
  const Index index = empty_index(dim);
  qx_index_insert(index.get(), random_floats(rows * dim, random).data(), ascending_ids(rows).data(),
                  static_cast<std::int32_t>(rows));
  const HostSearch search = [&](Slots& slots, const float* query, std::int64_t /*turn*/) {
    qx_index_search_filtered(index.get(), QX_FILTER_ALL, 0, 0, query,
                             static_cast<std::uint32_t>(slots.k), slots.ids.data(),
                             slots.scores.data());
  };
  run.compare({{"function", "delta"}, {"dim", dim}, {"rows", rows}, {"changed", 100.0}},
              rows * dim * 4, rows, with_and_without_codes(search, Queries(dim, random), kResults));
  run.use_chosen_kernel();
}

void run_searches(Run& run) {
  for (const std::int64_t dim : {32, 128, 768}) {
    Arena arena(run, dim);
    arena.search_lists("scatter_topk", 0, 100000);
    if (dim == 128) arena.search_filtered();
    arena.change(0.01);
    for (const std::int64_t length : {1000, 100000}) arena.search_lists("search_mvcc", 1, length);
  }
  for (const std::int64_t dim : {128, 768}) search_delta(run, dim);
}

}  // namespace

const Section kSearches = {"searches", "searches of some rows with codes and without",
                           run_searches};

}  // namespace bench
