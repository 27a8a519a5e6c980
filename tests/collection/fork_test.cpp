// A process may fork between its calls: the child and the parent go on with their own collections,
// whatever the library's threads were doing.
#include <gtest/gtest.h>

#include <thread>

#include "collection/host.h"
#include "support/child.h"

namespace qx_test {
namespace {

constexpr std::int32_t kDim = 256;  // tails take 1024 rows
const Schema kSchema = {kDim, false, {"x"}, {QX_INTEGER}};

// Rows of ids from `first` on, whose components and values are `value`.
void upsert(QxCollection* collection, Model& model, std::int64_t first, std::int64_t count,
            std::int64_t value) {
  std::vector<Id> ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back({first + i, ""});
  const std::vector<Row> rows(ids.size(), Row{static_cast<std::size_t>(value), {value}});
  std::vector<Floats> vectors;
  for (std::int64_t v = 0; v <= value; ++v) vectors.emplace_back(kDim, static_cast<float>(v));
  const IdArrays list(kSchema, ids);
  const RowArrays arrays(kSchema, vectors, rows);
  ASSERT_EQ(qx_collection_upsert(collection, list.get(), arrays.vectors(), arrays.values()), QX_OK);
  model.upsert(ids, rows);
}

void expect_rows_of(const QxCollection* collection, const Model& model) {
  const Floats queries(std::size_t{8} * kDim, 1.0f);
  Floats scores;
  for (int value = 0; value < 100; ++value) scores.push_back(static_cast<float>(value * kDim));
  const auto all = [](const Id&, const Row&) { return true; };
  const std::vector<std::vector<Hit>> expected(8, model.search(scores, 5000, all));
  QxHits* hits = nullptr;
  ASSERT_EQ(qx_collection_search(collection, nullptr, queries.data(), 8, 5000, nullptr, &hits),
            QX_OK);
  expect_hits(*Owned<QxHits>(hits), expected);
}

std::int64_t bytes_of(const QxCollection* collection) {
  QxCollectionStats stats;
  qx_collection_stats(collection, &stats);
  return stats.bytes;
}

// What the rows take that came in one call.
std::int64_t bytes_of(const Model& model) {
  const Owned<QxCollection> other(kSchema.create());
  const std::vector<Floats> vectors(100, Floats(kDim));
  std::vector<Id> ids;
  std::vector<Row> rows;
  for (const auto& [id, row] : model.rows) {
    ids.push_back(id);
    rows.push_back(row);
  }
  const IdArrays list(kSchema, ids);
  const RowArrays arrays(kSchema, vectors, rows);
  EXPECT_EQ(qx_collection_upsert(other.get(), list.get(), arrays.vectors(), arrays.values()),
            QX_OK);
  return bytes_of(other.get());
}

// Calls of every kind; releases the collection.
void go_on(Owned<QxCollection> collection, Model model) {
  expect_rows_of(collection.get(), model);
  upsert(collection.get(), model, 500, 1100, 90);
  upsert(collection.get(), model, 100, 7, 91);
  ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
  for (int i = 0; i < 8; ++i) upsert(collection.get(), model, std::int64_t{1024} * i, 1024, 92);
  expect_rows_of(collection.get(), model);
}

// Every change makes a segment, so that the thread that merges them is at work at some of the
// forks.
TEST(Fork, LeavesTwoProcessesThatGoOn) {
  QxOptions options = {};
  options.threads = 3;
  Owned<QxCollection> collection(kSchema.create(options));
  Model model;
  upsert(collection.get(), model, -50, 20, 1);
  for (int turn = 2; turn < 34 && !HasFailure(); ++turn) {
    upsert(collection.get(), model, std::int64_t{1000} * (turn % 5), 1024, turn);
    if (turn % 2 == 0) expect_rows_of(collection.get(), model);
    const ChildEnd end = run_in_child([&] {
      go_on(std::move(collection), std::move(model));
      if (HasFailure()) std::_Exit(1);
      std::exit(0);  // the library's own threads are not waited for
    });
    ASSERT_EQ(end.exit_status, 0) << "turn " << turn << ": " << end.standard_error;
  }
  go_on(std::move(collection), std::move(model));
}

// The fork comes while the thread merges: the bytes have changed, and the merge takes long.
TEST(Fork, LeavesNoBytesOfAMergeBehind) {
  constexpr std::int64_t kRows = 8192;
  const Owned<QxCollection> collection(kSchema.create());
  Model model;
  upsert(collection.get(), model, 0, kRows, 1);
  const std::int64_t bytes = bytes_of(collection.get());
  for (int segment = 1; segment < 6; ++segment) {
    upsert(collection.get(), model, segment * kRows, kRows, 1);
  }
  while (bytes_of(collection.get()) == 6 * bytes) std::this_thread::yield();
  const ChildEnd end = run_in_child([&] {
    EXPECT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
    EXPECT_EQ(bytes_of(collection.get()), bytes_of(model));
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(end.exit_status, 0) << end.standard_error;
}

}  // namespace
}  // namespace qx_test
