// Convention 12 of the header: its formula, written out as a host would, against the bytes that the
// engine has asked the heap for.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <set>

#include "store/codes.h"
#include "support/cases.h"
#include "support/heap.h"
#include "support/int64_map.h"
#include "support/random.h"

namespace qx_test {
namespace {

// ---- The formula ----

std::int64_t P(std::int64_t x) {
  if (x < 1) return 0;
  std::int64_t power = 1;
  while (power < x) power *= 2;
  return power;
}

std::int64_t M(std::int64_t x) {
  if (x < 1) return 0;
  if (x <= 4) return 96;
  return (x > (std::int64_t{1} << 27) ? 32 : 24) * P(x);
}

std::int64_t at_least_0(std::int64_t x) { return std::max<std::int64_t>(x, 0); }

constexpr std::int64_t kIndexBytes = 472;

std::int64_t rounded_up(std::int64_t x, std::int64_t unit) { return (x + unit - 1) / unit * unit; }

std::int64_t R(std::int64_t bytes) {
  return rounded_up(bytes, bytes < std::int64_t{1} << 22 ? 64 : std::int64_t{1} << 21);
}

// C(x).
std::int64_t C(std::int64_t x, std::int64_t dim) {
  const std::int64_t planes = 2 * rounded_up(x * ((dim + 1) / 2) + 64, 64);
  const std::int64_t bytes = planes + rounded_up(4 * x, 64) + 12 * ((x + 31) / 32);
  return R(bytes);
}

std::int64_t base_code_bytes(std::int64_t n, std::int64_t dim) {
  return qx::is_worth_coding(n, dim) ? C(n, dim) : 0;
}
std::int64_t delta_code_bytes(std::int64_t r, std::int64_t dim) {
  return qx::is_worth_coding(r, dim) ? C(P(r), dim) : 0;
}

std::int64_t base_bytes(std::int64_t n, std::int64_t dim, std::int64_t largest_id,
                        std::int64_t n_parts, std::int64_t repeated = 0) {
  const std::int64_t vectors = (4 * n * dim + 63) / 64 * 64;
  const std::int64_t table = n == 0 ? 0 : 8 * (largest_id + 1 + repeated);
  return vectors + 8 * n + table + 16 * n_parts + base_code_bytes(n, dim);
}

std::int64_t delta_bytes(std::int64_t r, std::int64_t floats) {
  return M(r) + 16 * P(r) + 4 * P(floats);
}

// `columns` has, for each column, the distinct ids since it exists.
std::int64_t metadata_bytes(std::int64_t ids, const std::vector<std::int64_t>& columns) {
  std::int64_t bytes = M(ids) + 32 * P(std::ssize(columns));
  for (const std::int64_t m : columns) bytes += M(m);
  return bytes;
}

std::int64_t ivf_table_bytes(std::int64_t s) { return M(s) + 128 * P(s); }

std::int64_t ivf_bytes(std::int64_t dim, std::int64_t nlist, std::int64_t n_ids) {
  return 4 * at_least_0(dim * nlist) + 8 * at_least_0(n_ids) + 4 * at_least_0(nlist + 1);
}

// ---- The heap ----

// Around the powers of two, and far from them.
const std::vector<std::int64_t> kCounts = {0,   1,   2,   3,   4,   5,   6,    7,    8,    9,   10,
                                           15,  16,  17,  31,  32,  33,  63,   64,   65,   100, 127,
                                           128, 129, 255, 256, 257, 999, 1023, 1024, 1025, 3000};

// The bytes that an index holds besides its own after `calls`.
std::int64_t bytes_after(std::int64_t dim, const std::function<void(QxIndex*)>& calls) {
  QxIndex* index = nullptr;
  const HeapLog log = record_heap([&] {
    index = qx_index_new(static_cast<std::uint32_t>(dim), 0);
    calls(index);
  });
  std::vector<const void*> blocks = log.still_held;
  for (const void* const block : record_heap([&] { qx_index_free(index); }).releases) {
    std::erase(blocks, block);
  }
  for (const void* const block : blocks) std::free(const_cast<void*>(block));  // of earlier builds
  return log.held_bytes - kIndexBytes;
}

// Expects an index to hold these. Where it does not, `a` and `b` tell the case.
void expect_bytes(std::int64_t expected, std::int64_t dim,
                  const std::function<void(QxIndex*)>& calls, std::int64_t a = 0,
                  std::int64_t b = 0) {
  EXPECT_EQ(bytes_after(dim, calls), expected) << a << ", " << b;
}

Floats floats_of(std::int64_t count) { return Floats(static_cast<std::size_t>(at_least_0(count))); }

void build_rows(QxIndex* index, const Ids& ids, std::int32_t dim, std::int32_t n_parts) {
  const Ints ranges(static_cast<std::size_t>(n_parts));
  seal(index, dim, ids, floats_of(std::ssize(ids) * dim), {ids_from(0, n_parts), ranges, ranges});
}

void insert_rows(QxIndex* index, const Ids& ids, std::int64_t dim) {
  insert(index, ids, floats_of(std::ssize(ids) * dim));
}

void set_columns(QxIndex* index, const Ids& ids, std::int32_t ncols) {
  const Ids values(ids.size() * static_cast<std::size_t>(ncols));
  ASSERT_EQ(set_rowmeta(index, ids, ids, values, ncols), 0);
}

void attach(QxIndex* index, std::int64_t key, std::int32_t dim, std::int32_t nlist,
            std::int32_t n_ids) {
  const Ids members(static_cast<std::size_t>(at_least_0(n_ids)));
  const Ints offsets(static_cast<std::size_t>(at_least_0(nlist + 1)));
  qx_index_set_ivf(index, key, nlist, 1, floats_of(std::int64_t{dim} * nlist).data(),
                   members.data(), offsets.data(), n_ids);
}

// ---- Each part of an index ----

TEST(Memory, OfABase) {
  for (const std::int64_t n : kCounts) {
    for (const std::int32_t dim : {0, 1, 3, 16, 100}) {
      const std::int64_t first_id = 5 * std::int64_t{dim};
      const auto calls = [&](QxIndex* index) {
        build_rows(index, ids_from(first_id, n), dim, dim);
      };
      expect_bytes(base_bytes(n, dim, n == 0 ? -1 : first_id + n - 1, dim), 1, calls, n, dim);
    }
  }
}

TEST(Memory, OfABaseWithRepeatedIds) {
  for (const std::int64_t n : {1, 2, 65, 1000}) {
    Ids ids = ids_from(3, n);
    ids.insert(ids.begin(), ids.begin(), ids.begin() + n / 2);
    ids.insert(ids.end(), 4, ids.back());
    const std::int64_t repeated = n / 2 + 4;
    expect_bytes(
        base_bytes(n + repeated, 2, n + 2, 0, repeated), 1,
        [&](QxIndex* index) { build_rows(index, ids, 2, 0); }, n);
  }
}

TEST(Memory, OfADelta) {
  for (const std::int64_t r : kCounts) {
    for (const std::int32_t dim : {-1, 0, 1, 3, 16, 100}) {
      const auto calls = [&](QxIndex* index) { insert_rows(index, ids_from(-9, r), dim); };
      const std::int64_t codes = delta_code_bytes(r, dim);
      expect_bytes(delta_bytes(r, r * std::max(dim, 0)) + codes, dim, calls, r, dim);
    }
  }
}

TEST(Memory, OfADeltaOfSeveralDimensions) {
  expect_bytes(delta_bytes(15, 10 * 6 + 5 * 4), 6, [](QxIndex* index) {
    insert_rows(index, ids_from(0, 10), 6);
    build_rows(index, {}, 4, 0);
    insert_rows(index, ids_from(5, 10), 4);  // five of them are there already
  });
}

// The header's numbers.
TEST(Memory, IsTakenByCodesOfManyLongRows) {
#if defined(QX_WITHOUT_CODES)
  EXPECT_FALSE(qx::is_worth_coding(1000000, 100));
#elif !defined(QX_SMALL_SPANS)
  EXPECT_TRUE(qx::is_worth_coding(512, 64) && qx::is_worth_coding(4096, 8));
  EXPECT_TRUE(qx::is_worth_coding(512, 8192));
  EXPECT_FALSE(qx::is_worth_coding(511, 8192) || qx::is_worth_coding(512, 63));
  EXPECT_FALSE(qx::is_worth_coding(1000000, 7) || qx::is_worth_coding(1000000, 8193));
#endif
  for (const std::int64_t n : {20000, 40000}) {
    expect_bytes(base_bytes(n, 99, n - 1, 0), 1,
                 [&](QxIndex* index) { build_rows(index, ids_from(0, n), 99, 0); });
  }
}

// Codes of a delta that grows row by row take what those of one call take.
TEST(Memory, OfCodesOfADeltaOfManyCalls) {
  constexpr std::int64_t kRows = 1100;
  expect_bytes(delta_bytes(kRows, kRows * 64) + delta_code_bytes(kRows, 64), 64,
               [](QxIndex* index) {
                 for (std::int64_t id = 0; id < kRows; ++id) insert_rows(index, {id}, 64);
               });
}

// Codes under another dimension are released by the next insert. Rows of several dimensions have
// none.
TEST(Memory, OfCodesAfterAChangeOfDimension) {
  constexpr std::int64_t kRows = 1100;
  expect_bytes(delta_bytes(kRows + 1, kRows * 64 + 32), 64, [](QxIndex* index) {
    insert_rows(index, ids_from(0, kRows), 64);
    build_rows(index, {}, 32, 0);
    insert_rows(index, {kRows}, 32);
  });
}

// A map whose slots widen from 2^6 on stands for the engine's, whose do from 2^29 on.
TEST(Memory, OfATableOfManyKeys) {
  for (const std::int64_t x : {16, 17, 32, 33, 1000}) {
    qx::BasicInt64Map<5> map;
    const HeapLog log = record_heap([&] {
      for (std::int64_t key = 0; key < x; ++key) map.assign(key, key);
    });
    EXPECT_EQ(log.held_bytes, (x > 16 ? 32 : 24) * P(x)) << x;
    map.release();
  }
}

TEST(Memory, OfMetadata) {
  for (const std::int64_t m : kCounts) {
    for (const std::int32_t ncols : {0, 1, 2, 3, 5, 17}) {
      const auto calls = [&](QxIndex* index) { set_columns(index, ids_from(3, m), ncols); };
      expect_bytes(metadata_bytes(m, Ids(static_cast<std::size_t>(ncols), m)), 3, calls, m, ncols);
    }
  }
}

TEST(Memory, OfIvfStructures) {
  for (const std::int64_t s : kCounts) {
    if (s > 300) continue;  // the heap log records no more allocations
    const auto calls = [&](QxIndex* index) {
      for (std::int64_t key = 0; key < s; ++key) attach(index, key * 7, 3, 5, 11);
    };
    expect_bytes(ivf_table_bytes(s) + s * ivf_bytes(3, 5, 11), 3, calls, s);
  }
}

TEST(Memory, OfIvfStructuresOfAnyShape) {
  for (const std::int32_t dim : {-2, 0, 1, 16}) {
    for (const std::int32_t nlist : {-1, 0, 1, 5, 100}) {
      if (dim < 0 && nlist < 0) continue;  // their product is above 0, and so is read
      for (const std::int32_t n_ids : {-1, 0, 1, 1000}) {
        const auto calls = [&](QxIndex* index) { attach(index, 1, dim, nlist, n_ids); };
        expect_bytes(ivf_table_bytes(1) + ivf_bytes(dim, nlist, n_ids), dim, calls, nlist, n_ids);
      }
    }
  }
}

TEST(Memory, OfIvfStructuresReplacedAndCleared) {
  const auto replaced = [](QxIndex* index) {
    for (std::int64_t key = 0; key < 9; ++key) attach(index, key, 3, 5, 11);
    attach(index, 4, 3, 100, 1000);
  };
  expect_bytes(ivf_table_bytes(9) + 8 * ivf_bytes(3, 5, 11) + ivf_bytes(3, 100, 1000), 3, replaced);
  const auto cleared = [&](QxIndex* index) {
    replaced(index);
    qx_index_clear_ivf(index);
  };
  expect_bytes(0, 3, cleared);
  expect_bytes(ivf_table_bytes(1) + ivf_bytes(3, 2, 2), 3, [&](QxIndex* index) {
    cleared(index);
    attach(index, 4, 3, 2, 2);
  });
}

// Members that are scattered over the base, beside those that are not and those of no row.
TEST(Memory, OfIvfStructuresWhoseMembersHaveCodes) {
  constexpr std::int32_t kRows = 1200;
  constexpr std::int32_t kDim = 64;
  if (!qx::is_worth_coding(kRows / 2, kDim)) GTEST_SKIP() << "built without codes";
  const Ids ids = ids_from(0, kRows);
  const auto scattered = [&](std::int64_t n) {
    Ids members(static_cast<std::size_t>(n));
    for (std::int64_t i = 0; i < n; ++i) members[static_cast<std::size_t>(i)] = i * 7 % kRows;
    return members;
  };
  const auto attach_members = [&](QxIndex* index, std::int64_t key, const Ids& members) {
    const Floats centroid(kDim);
    const Ints offsets{0, static_cast<std::int32_t>(members.size())};
    qx_index_set_ivf(index, key, 1, 1, centroid.data(), members.data(), offsets.data(), offsets[1]);
  };
  const std::int64_t base = base_bytes(kRows, kDim, kRows - 1, 0);
  const auto bytes = [&](std::int64_t n, bool coded) {
    return ivf_bytes(kDim, 1, n) + (coded ? C(n, kDim) + R(8 * n) : 0);
  };
  const auto expect = [&](std::int64_t expected, const std::vector<Ids>& structures,
                          bool build_last) {
    expect_bytes(base + ivf_table_bytes(std::ssize(structures)) + expected, kDim,
                 [&](QxIndex* index) {
                   if (!build_last) build_rows(index, ids, kDim, 0);
                   for (std::size_t s = 0; s < structures.size(); ++s) {
                     attach_members(index, static_cast<std::int64_t>(s), structures[s]);
                   }
                   if (build_last) build_rows(index, ids, kDim, 0);
                 });
  };
  Ids with_no_row = scattered(700);
  with_no_row[300] = kRows;
  for (const bool build_last : {false, true}) {
    expect(bytes(700, true), {scattered(700)}, build_last);
    expect(bytes(700, false), {ids_from(100, 700)}, build_last);
    expect(bytes(700, false), {with_no_row}, build_last);
    expect(bytes(1200, true), {scattered(1200)}, build_last);
    expect(bytes(1201, false), {scattered(1201)}, build_last);
    expect(bytes(600, true) + bytes(700, false) + bytes(550, true),
           {scattered(600), scattered(700), scattered(550)}, build_last);
  }
  expect_bytes(base + ivf_table_bytes(1) + bytes(550, true), kDim, [&](QxIndex* index) {
    build_rows(index, ids, kDim, 0);
    attach_members(index, 5, scattered(700));
    attach_members(index, 5, scattered(550));
  });
  expect_bytes(base, kDim, [&](QxIndex* index) {
    build_rows(index, ids, kDim, 0);
    attach_members(index, 5, scattered(700));
    qx_index_clear_ivf(index);
  });
}

// ---- Any order ----

// A random call sequence, and the keys that each part of the index has after it.
struct CallSequence {
  static constexpr std::int32_t kDim = 5;

  QxIndex* index;
  Random& random;
  std::set<std::int64_t> inserted = {};
  std::set<std::int64_t> deleted = {};
  std::set<std::int64_t> with_metadata = {};
  std::vector<std::set<std::int64_t>> columns = {};
  std::int64_t bytes_of_builds = 0;

  void play() {
    const std::int64_t calls = random.between(0, 60);
    for (std::int64_t call = 0; call < calls; ++call) step();
  }

  std::int64_t bytes() const {
    std::vector<std::int64_t> column_ids;
    for (const std::set<std::int64_t>& ids : columns) column_ids.push_back(std::ssize(ids));
    return bytes_of_builds + delta_bytes(std::ssize(inserted), std::ssize(inserted) * kDim) +
           M(std::ssize(deleted)) + metadata_bytes(std::ssize(with_metadata), column_ids);
  }

  // Ids that repeat within the call and between calls, in any order.
  Ids draw_ids() {
    Ids ids(static_cast<std::size_t>(random.between(0, random.percent(20) ? 300 : 8)));
    for (std::int64_t& id : ids) id = random.between(-20, random.percent(50) ? 20 : 1000);
    return ids;
  }

  void step() {
    const Ids ids = draw_ids();
    const std::int64_t choice = random.between(0, 9);
    if (choice < 4) {
      insert_rows(index, ids, kDim);
      inserted.insert(ids.begin(), ids.end());
    } else if (choice < 7) {
      delete_ids(index, ids);
      deleted.insert(ids.begin(), ids.end());
    } else if (choice < 9) {
      set_metadata(ids);
    } else {
      const std::int64_t n = random.between(0, 40);
      build_rows(index, ids_from(n, n), kDim, 2);
      bytes_of_builds += base_bytes(n, kDim, n == 0 ? -1 : 2 * n - 1, 2);
    }
  }

  void set_metadata(const Ids& ids) {
    if (random.percent(30)) columns.emplace_back();
    set_columns(index, ids, static_cast<std::int32_t>(columns.size()));
    with_metadata.insert(ids.begin(), ids.end());
    for (std::set<std::int64_t>& column : columns) column.insert(ids.begin(), ids.end());
  }
};

TEST(Memory, AfterRandomCalls) {
  Random random(12);
  for (int number = 0; number < 300; ++number) {
    std::int64_t expected = 0;
    const auto calls = [&](QxIndex* index) {
      CallSequence sequence{.index = index, .random = random};
      sequence.play();
      expected = sequence.bytes();
    };
    const std::int64_t bytes = bytes_after(CallSequence::kDim, calls);
    ASSERT_EQ(bytes, expected) << "call sequence " << number;
  }
}

TEST(Memory, TheExampleOfTheHeader) {
  EXPECT_EQ(C(1000000, 768), 773849088);
  EXPECT_EQ(C(16384, 768), 14680064);
  const std::int64_t codes = C(1000000, 768) + C(16384, 768);
  const std::int64_t without = base_bytes(1000000, 768, 999999, 0) - base_code_bytes(1000000, 768) +
                               delta_bytes(10000, std::int64_t{10000} * 768);
  EXPECT_EQ(kIndexBytes + without + codes, 3910739416);
}

}  // namespace
}  // namespace qx_test
