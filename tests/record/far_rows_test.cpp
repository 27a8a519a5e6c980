// Rows, ids and sizes where 31, 32 and 40 bits end. The arrays are reserved, not filled: they take
// 8 TiB of addresses and some pages of memory.
#include <sys/mman.h>

#include "store/delta.h"
#include "support/cases.h"
#include "support/memory.h"

namespace qx_test {
namespace {

constexpr std::int64_t kTwoTo31 = std::int64_t{1} << 31;
constexpr std::int64_t kTwoTo32 = std::int64_t{1} << 32;
constexpr std::int64_t kTwoTo40 = std::int64_t{1} << 40;

// Elements with the value 0 that take memory once they are written; null where addresses are short.
template <typename T>
class Reserved {
 public:
  explicit Reserved(std::int64_t count) : bytes_(static_cast<std::size_t>(count) * sizeof(T)) {
    void* const mapped = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    data_ = mapped == MAP_FAILED ? nullptr : static_cast<T*>(mapped);
  }
  Reserved(const Reserved&) = delete;
  Reserved& operator=(const Reserved&) = delete;
  ~Reserved() {
    if (data_ != nullptr) munmap(data_, bytes_);
  }
  T* data() const { return data_; }

 private:
  std::size_t bytes_;
  T* data_ = nullptr;
};

// A record of a base as no memory holds it.
class FarRows : public testing::Test {
 protected:
  static constexpr std::int64_t kRows = std::int64_t{1} << 33;
  static constexpr std::int64_t kWidth = 8;
  static constexpr std::int64_t kFloats = kRows * kWidth;

  void SetUp() override {
    if (!vectors_.data() || !ids_.data() || !id_to_row_.data()) {
      GTEST_SKIP() << "no 8 TiB of addresses can be reserved here";
    }
    index_.dim = kWidth;
    index_.n_base = kRows;
    index_.sealed = 1;
    index_.base_vectors = vectors_.data();
    index_.base_ids = ids_.data();
    index_.id_to_row = id_to_row_.data();
    index_.max_base_id = kTwoTo40 - 1;
    index_.base_magnitude = 1000;
  }

  // Gives an id a row of equal components, which the query multiplies and adds up.
  void place(std::int64_t id, std::int64_t row, float value) {
    ids_.data()[row] = id;
    id_to_row_.data()[id] = row;
    std::fill_n(vectors_.data() + row * kWidth, kWidth, value);
  }
  const Floats query_ = Floats(kWidth, 1.0f);
  static Hit hit(std::int64_t id, float value) { return {id, value * kWidth}; }

  // Rows on both sides of where rows, elements and bytes pass 31 and 32 bits, and the last one.
  Ids place_at_edges() {
    const Ids rows = {kTwoTo31 / 32, kTwoTo31 / 8 - 1, kTwoTo31 / 8, kTwoTo32 / 8, kTwoTo31 - 1,
                      kTwoTo31,      kTwoTo32 - 1,     kTwoTo32,     kRows - 1};
    Ids ids = {kTwoTo32 + 1, kTwoTo31 - 1, kTwoTo31,     5,           kTwoTo32 - 1,
               kTwoTo32,     kTwoTo31 + 1, kTwoTo40 - 1, kTwoTo40 - 2};
    for (std::size_t i = 0; i < rows.size(); ++i) {
      place(ids[i], rows[i], static_cast<float>(i + 1));
    }
    return ids;
  }
  static Found best_first(const Ids& ids) {
    std::vector<Hit> all;
    for (std::size_t i = ids.size(); i > 0; --i) {
      all.push_back(hit(ids[i - 1], static_cast<float>(i)));
    }
    return found(all);
  }

  const Reserved<float> vectors_{kFloats};
  const Reserved<std::int64_t> ids_{kRows};
  const Reserved<std::int64_t> id_to_row_{kTwoTo40};
  QxIndex index_;
};

TEST_F(FarRows, AreFoundAmongCandidatesAndThroughLists) {
  const Ids ids = place_at_edges();
  EXPECT_EQ(scatter(&index_, ids, query_, 9), best_first(ids));
  EXPECT_EQ(search_mvcc(&index_, ids, query_, 9), best_first(ids));
  set_ivf(&index_, 1, {1, 1, query_, ids, {0, 9}});
  EXPECT_EQ(search_ivf(&index_, 1, query_, 9), best_first(ids));
  qx_index_clear_ivf(&index_);
}

// Members whose rows are consecutive are scanned in place, without a list of addresses.
TEST_F(FarRows, AreFoundThroughAListInTheirOrder) {
  const Ids ids = ids_from(kTwoTo32 - 77, 200);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    place(ids[i], kTwoTo31 - 100 + static_cast<std::int64_t>(i), static_cast<float>(i % 150));
  }
  set_ivf(&index_, 1, {1, 1, query_, ids, {0, 200}});
  EXPECT_EQ(search_ivf(&index_, 1, query_, 2), found({hit(ids[149], 149), hit(ids[148], 148)}));
  qx_index_clear_ivf(&index_);
}

TEST_F(FarRows, AreFoundInAPartitionThatLiesAcrossTwoToThe31) {
  std::int64_t key = 6;
  std::int32_t start = INT32_MAX;
  std::int32_t size = 3;
  index_.part_keys = &key;
  index_.part_starts = &start;
  index_.part_sizes = &size;
  index_.n_parts = 1;
  place(1, kTwoTo31 - 1, 2);
  place(2, kTwoTo31, 1);
  place(3, kTwoTo31 + 1, 3);
  const Found all = found({hit(3, 3), hit(1, 2), hit(2, 1)});
  EXPECT_EQ(search_partition(&index_, 6, query_, 3), all);
  index_.n_base = kTwoTo31 + 1;
  EXPECT_EQ(search_partition(&index_, 6, query_, 3), nothing_written());
  size = INT32_MAX;
  index_.n_base = kTwoTo32 - 3;
  EXPECT_EQ(search_partition(&index_, 6, query_, 3), nothing_written());
}

TEST_F(FarRows, TheIdsOfTheTableEndBelowTwoToThe40) {
  for (const std::int64_t id : {std::int64_t{0}, kTwoTo31 - 1, kTwoTo31, kTwoTo32, kTwoTo40 - 1}) {
    EXPECT_TRUE(qx::may_have_base_row(index_, id)) << id;
  }
  for (const std::int64_t id : {std::int64_t{-1}, kTwoTo40, kHighestId, kLowestId}) {
    EXPECT_FALSE(qx::may_have_base_row(index_, id)) << id;
    EXPECT_EQ(qx::base_row_of(index_, id), -1) << id;
  }
}

TEST_F(FarRows, OfTheDeltaAreInsideItsArrayOrEndTheProcess) {
  index_.delta_vectors.data = vectors_.data();
  index_.delta_vectors.length = kTwoTo32 + kWidth;
  EXPECT_EQ(qx::delta_vector(index_, kTwoTo31 / kWidth), vectors_.data() + kTwoTo31);
  EXPECT_EQ(qx::delta_vector(index_, kTwoTo32 / kWidth), vectors_.data() + kTwoTo32);
  EXPECT_TRUE(ends_out_of_bounds(kTwoTo32 + kWidth, kTwoTo32 + kWidth,
                                 [&] { qx::delta_vector(index_, kTwoTo32 / kWidth + 1); }));
  index_.delta_vectors.data = nullptr;  // the array is not the heap's
  index_.delta_vectors.length = 0;
}

TEST_F(FarRows, OfAnArrayAreCheckedWithoutOverflow) {
  qx::Array<float> array;
  array.data = vectors_.data();
  array.length = array.capacity = kFloats;
  for (const std::int64_t at : {kTwoTo31 - 1, kTwoTo31, kTwoTo32, kFloats - 1}) {
    EXPECT_EQ(&array.at(at), vectors_.data() + at);
    EXPECT_EQ(array.range(at, kFloats - at), vectors_.data() + at);
  }
  for (const std::int64_t at : {kFloats, kHighestId, kLowestId}) {
    EXPECT_TRUE(ends_out_of_bounds(at, kFloats, [&] { (void)array.at(at); }));
  }
  const struct {
    std::int64_t first;
    std::int64_t count;
    std::int64_t reported;
  } outside[] = {{kHighestId, kHighestId, kHighestId},
                 {1, kHighestId, kFloats},
                 {kTwoTo32, kFloats - kTwoTo32 + 1, kFloats}};
  for (const auto& [first, count, reported] : outside) {
    EXPECT_TRUE(ends_out_of_bounds(reported, kFloats,
                                   [&, from = first, n = count] { (void)array.range(from, n); }));
  }
  array.data = nullptr;  // the array is not the heap's
  array.length = 0;
}

bool ends_as_a_failed_allocation(const std::function<void()>& body) {
  const ChildEnd end = run_in_child(body);
  return end.trapped && is_allocation_line(end.standard_error);
}

TEST(FarSizes, BlocksThatNoAddressSpaceHoldsAreFailedAllocations) {
  constexpr std::int64_t kTwoTo62 = std::int64_t{1} << 62;
  for (const std::int64_t count : {std::int64_t{-1}, kLowestId, kTwoTo62 / 2, kTwoTo62 - 1,
                                   kTwoTo62, kTwoTo62 + 1, kHighestId}) {
    EXPECT_TRUE(ends_as_a_failed_allocation([=] { qx::allocate(count, 4); })) << count;
    EXPECT_TRUE(ends_as_a_failed_allocation([=] { qx::allocate_cache_aligned(count, 4); }))
        << count;
    EXPECT_TRUE(ends_as_a_failed_allocation([=] { qx::reallocate(nullptr, count, 4); })) << count;
  }
}

TEST(FarSizes, CentroidsAreCountedInMoreThan32Bits) {
  const Index index(INT32_MAX);
  EXPECT_TRUE(ends_as_a_failed_allocation(
      [&] { qx_index_set_ivf(index, 1, INT32_MAX, 1, nullptr, nullptr, nullptr, 0); }));
  // Twice 2^31 - 1 is below 0 in 32 bits: then nothing would be read, and the child would end well.
  const ChildEnd end =
      run_in_child([&] { qx_index_set_ivf(index, 1, 2, 1, nullptr, nullptr, nullptr, 0); });
  EXPECT_NE(end.exit_status, 0);
}

}  // namespace
}  // namespace qx_test
