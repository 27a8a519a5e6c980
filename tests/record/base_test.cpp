// What a build leaves in the record.
#include "record/fields.h"
#include "support/cases.h"

namespace qx_test {
namespace {

TEST(BaseRecord, TheTableEndsWithTheLargestIdAndNamesTheLastRowOfEach) {
  const struct {
    Ids ids;
    Ids table;
    Ids duplicates;
  } cases[] = {{{7, 3, 7}, {-1, -1, -1, 1, -1, -1, -1, 2}, {0}},
               {{2, 1, 2, 0, 2, 1}, {3, 5, 4}, {0, 1, 2}},
               {{2, 1}, {-1, 1, 0}, {}},
               {{5, 0, 2}, {1, -1, 2, -1, -1, 0}, {}},
               {{0}, {0}, {}}};
  for (const auto& [ids, table, duplicates] : cases) {
    const Sealed index(0, ids, {});
    EXPECT_EQ(index->max_base_id, std::ssize(table) - 1);
    EXPECT_EQ(id_to_row(index), table);
    EXPECT_EQ(values_of(index->duplicate_rows), duplicates);
  }
}

float kept_magnitude(const Floats& vectors, std::int32_t dim) {
  return Sealed(dim, ids_from(0, std::ssize(vectors) / dim), vectors)->base_magnitude;
}

TEST(BaseRecord, KeepsTheLargestMagnitudeWhereverItStands) {
  for (std::size_t count = 1; count <= 70; ++count) {
    for (std::size_t at = 0; at < count; ++at) {
      for (const float largest : {3.5f, -3.5f}) {
        Floats vectors(count, at % 2 == 0 ? 2.0f : -2.0f);
        vectors[at] = largest;
        ASSERT_EQ(kept_magnitude(vectors, 1), 3.5f) << "position " << at << " of " << count;
      }
    }
  }
}

TEST(BaseRecord, KeepsTheLargestMagnitudeOfALongBase) {
  constexpr std::size_t kCount = 50000;
  for (const std::size_t at : {0u, 16383u, 16384u, 16385u, 32767u, 32768u, 49151u, 49999u}) {
    Floats vectors(kCount, -0.5f);
    vectors[at] = -0.75f;
    EXPECT_EQ(kept_magnitude(vectors, 10), 0.75f) << "position " << at;
  }
}

TEST(BaseRecord, NoNaNHidesTheLargestMagnitude) {
  for (std::size_t at = 0; at < 40; ++at) {
    for (std::size_t spoiled = 0; spoiled < 40; ++spoiled) {
      if (spoiled == at) continue;
      Floats vectors(40, 1.0f);
      vectors[at] = -7;
      vectors[spoiled] = at % 2 == 0 ? kNaN : -kNaN;
      ASSERT_EQ(kept_magnitude(vectors, 4), 7.0f) << "position " << at << ", NaN " << spoiled;
    }
  }
  EXPECT_EQ(kept_magnitude(Floats(40, kNaN), 4), 0.0f);
}

TEST(BaseRecord, KeepsAnInfinityAndTheSmallestMagnitudes) {
  EXPECT_EQ(kept_magnitude({1, -kInfinity, 2}, 1), kInfinity);
  EXPECT_EQ(kept_magnitude({kInfinity}, 1), kInfinity);
  EXPECT_EQ(kept_magnitude({0, -kDenormal, 0}, 3), kDenormal);
  EXPECT_EQ(kept_magnitude({-0.0f}, 1), 0.0f);
  EXPECT_EQ(kept_magnitude({}, 5), 0.0f);
}

// The whole record, byte for byte.
std::vector<unsigned char> bytes_of(const QxIndex* index) {
  std::vector<unsigned char> bytes(sizeof *index);
  std::memcpy(bytes.data(), static_cast<const void*>(index), bytes.size());
  return bytes;
}

TEST(BaseRecord, ARejectedBuildChangesNoByte) {
  const Sealed index(1, {4, 2}, {1, 2}, {{1}, {0}, {2}});
  insert(index, {2}, {3});
  const std::vector<unsigned char> before = bytes_of(index);
  EXPECT_EQ(build(index, -1, {1}, {1}), -1);
  EXPECT_EQ(build(index, 1, {1, -1}, {1, 2}), -1);
  EXPECT_EQ(build(index, 1, {1, std::int64_t{1} << 40}, {1, 2}), -1);
  EXPECT_EQ(qx_index_build(index, nullptr, 0, 1, nullptr, nullptr, nullptr, nullptr, -1), -1);
  EXPECT_EQ(bytes_of(index), before);
}

}  // namespace
}  // namespace qx_test
