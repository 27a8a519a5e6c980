// Tables larger than 2^31 and 2^32 bytes: of ids, of partitions, of list members, of tombstones.
#include <sys/resource.h>

#include <algorithm>
#include <numeric>

#include "scale/pieces.h"
#include "scale/stages.h"
#include "support/child.h"

namespace qx_scale {
namespace {

// Rows of one float, which is also their score under this query.
constexpr float kQuery = 1;

std::int32_t build(QxIndex* index, const Ids& ids, const Floats& vectors) {
  return qx_index_build(index, vectors.data(), static_cast<std::int64_t>(ids.size()), 1, ids.data(),
                        nullptr, nullptr, nullptr, 0);
}

// The id of the best of the listed ids; -1 if none has a row.
std::int64_t best_of(const QxIndex* index, const Ids& listed) {
  return hits_of(1, qx_index_search_mvcc, index, listed.data(), listed.size(), &kQuery).ids[0];
}

constexpr std::int64_t kIdLimit = std::int64_t{1} << 40;

// Builds a base with one large id, whose table cannot be allocated.
qx_test::ChildEnd end_of_build_with(std::int64_t id) {
  return qx_test::run_in_child([=] {
    const rlimit address_space{16u << 20, 16u << 20};
    if (setrlimit(RLIMIT_AS, &address_space) != 0) return;
    build(new_index().get(), {id}, {1});
  });
}

}  // namespace

void run_ids(Report& report) {
  report.stage("ids");
  const qx_test::ChildEnd end = end_of_build_with(kIdLimit - 1);
  report.expect(
      end.trapped && qx_test::is_allocation_line(end.standard_error),
      "2^40 - 1 is accepted: its table cannot be had, which is said, and ends the process");
  const Handle index = new_index();
  report.expect(
      build(index.get(), {3, kIdLimit}, {1, 2}) == -1 && qx_index_sealed(index.get()) == 0,
      "2^40 is rejected");
  constexpr std::int64_t kLargest = (std::int64_t{1} << 29) + 5;
  constexpr std::int64_t kMiddle = (std::int64_t{1} << 28) + 3;
  const Ids ids = {kMiddle, 0, kLargest, kLargest - 1, kMiddle - 1, 7};
  report.expect(build(index.get(), ids, {1, 2, 3, 4, 5, 6}) == 0, "a table of 4 GiB is built");
  bool each_found = true;
  for (const std::int64_t id : ids) each_found &= best_of(index.get(), {id}) == id;
  report.expect(each_found, "each id is found");
  report.expect(best_of(index.get(), {kLargest + 1, kMiddle + 1, 5, 3, -1, kIdLimit}) == -1,
                "no other id is");
}

namespace {

// More than 2^28, so that their keys take more than 2^31 bytes.
constexpr std::int32_t kMany = (1 << 28) + 77;

// A base whose partitions have one row each, except the last, which has two. Partition p has the
// key 3 p and, since the table of starts repeats, row p % kPieceParts.
constexpr std::int32_t kPieceParts = 1 << 20;

Handle partitioned() {
  Ids keys(kMany);
  for (std::int32_t p = 0; p < kMany; ++p) keys.data()[p] = 3 * std::int64_t{p};
  const Piece one_piece(kPieceParts * sizeof(std::int32_t));
  std::fill_n(one_piece.as<std::int32_t>(), kPieceParts, 1);
  const Repeated sizes(one_piece, kMany * sizeof(std::int32_t), Writes::kPrivate);
  sizes.as<std::int32_t>()[kMany - 1] = 2;
  const Piece starts_piece(kPieceParts * sizeof(std::int32_t));
  std::iota(starts_piece.as<std::int32_t>(), starts_piece.as<std::int32_t>() + kPieceParts, 0);
  const Repeated starts(starts_piece, kMany * sizeof(std::int32_t), Writes::kPrivate);
  Ids ids(kPieceParts);
  std::iota(ids.begin(), ids.end(), 0);
  Floats vectors(ids.begin(), ids.end());
  Handle index = new_index();
  qx_index_build(index.get(), vectors.data(), kPieceParts, 1, ids.data(), keys.data(),
                 starts.as<std::int32_t>(), sizes.as<std::int32_t>(), kMany);
  return index;
}

// The ids that a search of a partition returns, best first.
Ids found_in(const QxIndex* index, std::int64_t key) {
  return hits_of(4, qx_index_search_partition, index, key, &kQuery).ids;
}

}  // namespace

void run_partitions(Report& report) {
  report.stage("partitions");
  const Handle index = partitioned();
  report.expect(qx_index_sealed(index.get()) == 1, "2^28 + 77 are built");
  bool each_found = true;
  for (const std::int64_t p : {std::int64_t{0}, std::int64_t{1} << 27, std::int64_t{kMany} - 2}) {
    each_found &= found_in(index.get(), 3 * p) == Ids{p % kPieceParts};
    each_found &= found_in(index.get(), 3 * p + 1).empty();
  }
  report.expect(each_found, "keys are found, and those between them are not");
  constexpr std::int64_t kLast = std::int64_t{kMany} - 1;
  report.expect(
      found_in(index.get(), 3 * kLast) == Ids{kLast % kPieceParts + 1, kLast % kPieceParts},
      "the last one has two rows");
  std::int64_t key = 0;
  std::int64_t size = 0;
  report.expect(
      qx_index_tuner_oversized(index.get(), 2, &key, &size) == 1 && key == 3 * kLast && size == 2,
      "it alone is oversized");
}

void run_lists(Report& report) {
  report.stage("IVF lists");
  const Handle index = new_index();
  report.expect(build(index.get(), {10, 20, 30}, {1, 2, 3}) == 0, "a small base is built");
  const Piece piece(1 << 20);
  std::fill_n(piece.as<std::int64_t>(), piece.bytes() / sizeof(std::int64_t), 10);
  const Repeated members(piece, kMany * sizeof(std::int64_t), Writes::kPrivate);
  constexpr std::int32_t kFirstList = kMany - 40;
  members.as<std::int64_t>()[kFirstList - 1] = 20;
  members.as<std::int64_t>()[kMany - 1] = 30;
  const float centroids[] = {1, 2};
  const std::int32_t offsets[] = {0, kFirstList, kMany};
  qx_index_set_ivf(index.get(), 1, 2, 1, centroids, members.as<std::int64_t>(), offsets, kMany);
  const auto best = [&](std::int32_t lists) {
    qx_index_set_ivf_nprobe(index.get(), 1, lists);
    return hits_of(3, qx_index_search_ivf, index.get(), 1, &kQuery).ids;
  };
  under_every_kernel([&] {
    report.expect(best(1) == Ids{30, 10, 10}, "the last member of 2^28 + 77 in the best list");
    report.expect(best(2) == Ids{30, 20, 10}, "the last member of the long list after it");
  });
}

void run_tombstones(Report& report) {
  report.stage("tombstones");
  // Deletes every fourth row, and many ids that have no row.
  constexpr std::int64_t kRows = std::int64_t{1} << 20;
  constexpr std::int32_t kDeleted = (1 << 27) + 1000;
  const Handle index = new_index();
  {
    Ids ids(kRows);
    std::iota(ids.begin(), ids.end(), 0);
    report.expect(build(index.get(), ids, Floats(kRows, 1)) == 0, "a base of 2^20 rows is built");
    ids.resize(kDeleted);
    for (std::int64_t i = 0; i < kDeleted; ++i) ids.data()[i] = 4 * i - (std::int64_t{1} << 28);
    qx_index_delete(index.get(), ids.data(), kDeleted);
  }
  report.expect(qx_index_visible_count(index.get()) == kRows - kRows / 4,
                "2^27 + 1000 are set, those of the base's rows among them");
  Ids visible(kRows);
  visible.resize(static_cast<std::size_t>(qx_index_visible_ids(index.get(), visible.data())));
  report.expect(
      std::none_of(visible.begin(), visible.end(), [](std::int64_t id) { return id % 4 == 0; }),
      "no deleted row is listed");
  report.expect(best_of(index.get(), {0, 4, kRows - 4}) == -1 &&
                    best_of(index.get(), {0, kRows - 4, kRows - 3}) == kRows - 3,
                "no deleted row is found");
}

}  // namespace qx_scale
