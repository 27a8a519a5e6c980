// Walks take a large base in spans. Changed rows at the edges of spans are seen where they are, and
// nowhere else.
#include <algorithm>
#include <set>

#include "read/row_bitmap.h"
#include "support/cases.h"

namespace qx_test {
namespace {

constexpr std::int64_t kSpan = qx::RowBitmap::kMaxRows;
constexpr std::int64_t kRows = 2 * kSpan + 70;

// The rows next to an edge of a span, and next to the blocks of 64 beside it.
Ids rows_at_edges() {
  Ids rows;
  for (const std::int64_t edge : {std::int64_t{0}, kSpan, 2 * kSpan, kRows}) {
    for (const std::int64_t block : {-64, 0, 64}) {
      for (const std::int64_t beside : {-1, 0, 1}) {
        const std::int64_t row = edge + block + beside;
        if (row >= 0 && row < kRows) rows.push_back(row);
      }
    }
  }
  std::sort(rows.begin(), rows.end());
  rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
  return rows;
}

// Row r has the id kRows - 1 - r, so that ids and rows are not taken for each other.
std::int64_t id_of(std::int64_t row) { return kRows - 1 - row; }

class Spans : public testing::Test {
 protected:
  void SetUp() override { seal(index_, 1, all_but({}), Floats(kRows, 1.0f)); }

  // The ids of all base rows but these.
  static Ids all_but(const std::set<std::int64_t>& left_out) {
    Ids ids;
    for (std::int64_t row = 0; row < kRows; ++row) {
      if (left_out.count(row) == 0) ids.push_back(id_of(row));
    }
    return ids;
  }

  Index index_{1};
};

TEST_F(Spans, HideTheirOwnRowsAlone) {
  std::set<std::int64_t> hidden;
  Ids newer;
  for (const std::int64_t row : rows_at_edges()) {
    hidden.insert(row);
    delete_ids(index_, {id_of(row)});
    Ids expected = newer;
    const Ids left = all_but(hidden);
    expected.insert(expected.end(), left.begin(), left.end());
    ASSERT_EQ(qx_index_visible_count(index_), std::ssize(expected)) << "row " << row;
    ASSERT_TRUE(visible_ids(index_) == expected) << "row " << row;
    insert(index_, {id_of(row)}, {2.0f});
    newer.push_back(id_of(row));
    expected.insert(expected.begin() + std::ssize(newer) - 1, id_of(row));
    ASSERT_TRUE(visible_ids(index_) == expected) << "row " << row;
  }
}

TEST_F(Spans, FindTheirOwnLabelledRowsAlone) {
  const Ids rows = rows_at_edges();
  Ids ids;
  for (const std::int64_t row : rows) ids.push_back(id_of(row));
  set_rowmeta(index_, ids, rows, {}, 0);
  for (const std::int64_t row : rows) {
    EXPECT_EQ(match_ids(index_, has_label(row)), Ids{id_of(row)}) << "row " << row;
  }
  EXPECT_TRUE(match_ids(index_, has_label(-1)) == all_but({rows.begin(), rows.end()}));
}

}  // namespace
}  // namespace qx_test
