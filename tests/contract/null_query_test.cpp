// A query is read only if there is a row to score; otherwise it may be null.
#include "support/cases.h"

namespace qx_test {
namespace {

constexpr std::int32_t kDim = 24;

// Calls a search with a null query and expects its slots to be empty.
template <typename Search>
void expect_empty_slots(Search search) {
  for (const std::uint32_t k : {1u, 10u, 100u}) {
    EXPECT_EQ(
        run_search(k, [&](std::int64_t* ids, float* scores) { return search(k, ids, scores); }),
        empty_slots(k))
        << "k " << k;
  }
}

void expect_nothing_found(QxIndex* index, const Ids& ids) {
  const Guarded<std::int64_t> listed(ids);
  const auto n = static_cast<std::int32_t>(ids.size());
  expect_empty_slots([&](std::uint32_t k, std::int64_t* out_ids, float* scores) {
    return qx_index_search_mvcc(index, listed.data(), n, nullptr, k, out_ids, scores);
  });
}

void expect_nothing_passes(QxIndex* index, const Predicate& predicate) {
  expect_empty_slots([&](std::uint32_t k, std::int64_t* out_ids, float* scores) {
    return qx_index_search_filtered(index, predicate.mode, predicate.column, predicate.value,
                                    nullptr, k, out_ids, scores);
  });
}

class NullQuery : public testing::Test {
 protected:
  NullQuery() { insert(index_, {500}, Floats(kDim, 1)); }

  const Ids base_ids_ = ids_from(0, 500);
  const Ids all_ids_ = ids_from(0, 501);
  const Sealed index_{kDim, base_ids_, Floats(std::size_t{500} * kDim, 1)};
  const Sealed empty_{kDim, {}, {}};
};

TEST_F(NullQuery, IsNotReadWhereCandidatesAreNoneUnknownOrDeleted) {
  expect_nothing_found(index_, {});
  expect_nothing_found(index_, {-1, 501, 999, INT64_MIN, INT64_MAX});
  expect_nothing_found(empty_, all_ids_);
  delete_ids(index_, all_ids_);
  expect_nothing_found(index_, all_ids_);
}

TEST_F(NullQuery, IsNotReadWhereNoRowPasses) {
  expect_nothing_passes(empty_, kEveryId);
  expect_nothing_passes(index_, has_label(7));
  expect_nothing_passes(index_, has_value(0, -1));
  set_rowmeta(index_, base_ids_, base_ids_, {}, 0);
  expect_nothing_passes(index_, has_label(100000));
  delete_ids(index_, all_ids_);
  expect_nothing_passes(index_, kEveryId);
}

TEST_F(NullQuery, IsNotReadWhereNoListedIdHasABaseRow) {
  for (QxIndex* const index : {static_cast<QxIndex*>(index_), static_cast<QxIndex*>(empty_)}) {
    expect_empty_slots([&](std::uint32_t k, std::int64_t* ids, float* scores) {
      const Ids listed(k, 500);
      const auto n = static_cast<std::int32_t>(k);
      return qx_index_scatter_topk(index, listed.data(), n, nullptr, n, ids, scores);
    });
  }
}

TEST_F(NullQuery, IsNotReadWhereNothingRuns) {
  EXPECT_EQ(qx_index_search_full(empty_, nullptr, 5, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_full(index_, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_partition(index_, 1, nullptr, 5, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_ivf(index_, 1, nullptr, 5, nullptr, nullptr), 0);
}

}  // namespace
}  // namespace qx_test
