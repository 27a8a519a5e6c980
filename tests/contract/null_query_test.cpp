// A query is read only if there is a row to score; otherwise it may be null.
#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int32_t kDim = 24;

// Calls a search with a null query and expects its slots to be empty.
template <typename Search>
void expect_empty_slots(Search search) {
  for (const std::int32_t k : {1, 10, 100}) {
    EXPECT_EQ(
        run_search(k, [&](std::int64_t* ids, float* scores) { return search(k, ids, scores); }),
        found(std::vector<Hit>(static_cast<std::size_t>(k), kEmptySlot)))
        << "k " << k;
  }
}

void expect_nothing_found(QxIndex* index, const Ids& ids) {
  const Guarded<std::int64_t> listed(ids);
  const auto n = static_cast<std::int32_t>(ids.size());
  expect_empty_slots([&](std::int32_t k, std::int64_t* out_ids, float* scores) {
    return qx_index_search_mvcc(index, listed.data(), n, nullptr, static_cast<std::uint32_t>(k),
                                out_ids, scores);
  });
}

void expect_nothing_passes(QxIndex* index, const Predicate& predicate) {
  expect_empty_slots([&](std::int32_t k, std::int64_t* out_ids, float* scores) {
    return qx_index_search_filtered(index, predicate.mode, predicate.column, predicate.value,
                                    nullptr, static_cast<std::uint32_t>(k), out_ids, scores);
  });
}

class NullQuery : public testing::Test {
 protected:
  NullQuery() {
    seal(index_, kDim, ids_, Floats(ids_.size() * kDim, 1.0f));
    insert(index_, {1000}, Floats(kDim, 1.0f));
  }

  Index index_{kDim};
  const Ids ids_ = [] {
    Ids ids;
    for (std::int64_t id = 0; id < 500; ++id) ids.push_back(id);
    return ids;
  }();
};

TEST_F(NullQuery, IsNotReadWithoutCandidates) {
  expect_nothing_found(index_, {});
  for (const std::int32_t n : {0, -1, INT32_MIN}) {
    expect_empty_slots([&](std::int32_t k, std::int64_t* ids, float* scores) {
      return qx_index_search_mvcc(index_, nullptr, n, nullptr, static_cast<std::uint32_t>(k), ids,
                                  scores);
    });
  }
}

TEST_F(NullQuery, IsNotReadWhereCandidatesAreUnknownOrDeleted) {
  expect_nothing_found(index_, {-1, 500, 999, INT64_MIN, INT64_MAX});
  Ids all = ids_;
  all.push_back(1000);
  delete_ids(index_, all);
  expect_nothing_found(index_, all);
  const Index empty(kDim);
  expect_nothing_found(empty, all);
}

TEST_F(NullQuery, IsNotReadWhereNoRowPasses) {
  const Index empty(kDim);
  expect_nothing_passes(empty, {0, 0, 0});
  expect_nothing_passes(index_, {1, 0, 7});
  expect_nothing_passes(index_, {2, 0, -1});
  set_rowmeta(index_, ids_, ids_, {}, 0);
  expect_nothing_passes(index_, {1, 0, 100000});
  Ids all = ids_;
  all.push_back(1000);
  delete_ids(index_, all);
  expect_nothing_passes(index_, {0, 0, 0});
}

TEST_F(NullQuery, IsNotReadWhereNoListedIdHasABaseRow) {
  const Ids unknown = {-1, 500, 1000, INT64_MAX};
  expect_empty_slots([&](std::int32_t k, std::int64_t* ids, float* scores) {
    const std::vector<std::int64_t> listed(static_cast<std::size_t>(k), unknown[0]);
    return qx_index_scatter_topk(index_, listed.data(), k, nullptr, k, ids, scores);
  });
  Index empty(kDim);
  seal(empty, kDim, {}, {});
  expect_empty_slots([&](std::int32_t k, std::int64_t* ids, float* scores) {
    const std::vector<std::int64_t> listed(static_cast<std::size_t>(k), 3);
    return qx_index_scatter_topk(empty, listed.data(), k, nullptr, k, ids, scores);
  });
}

TEST_F(NullQuery, IsNotReadWhereVectorsHaveNoElements) {
  Index index(0);
  seal(index, 0, {7}, {});
  std::int64_t id = 0;
  float score = 1;
  EXPECT_EQ(qx_index_search_full(index, nullptr, 1, &id, &score), 1);
  EXPECT_EQ(id, 7);
  EXPECT_EQ(bits_of(score), bits_of(0.0f));
  EXPECT_EQ(qx_index_search_filtered(index, QX_FILTER_ALL, 0, 0, nullptr, 1, &id, &score), 1);
  EXPECT_EQ(id, 7);
}

TEST_F(NullQuery, IsNotReadWhereNothingRuns) {
  const Index empty(kDim);
  EXPECT_EQ(qx_index_search_full(empty, nullptr, 5, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_full(index_, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_partition(index_, 1, nullptr, 5, nullptr, nullptr), 0);
  EXPECT_EQ(qx_index_search_ivf(index_, 1, nullptr, 5, nullptr, nullptr), 0);
}

}  // namespace
}  // namespace qx_test
