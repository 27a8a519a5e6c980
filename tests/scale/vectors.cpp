// A base whose vectors fill most of the memory: every search, changes, and every export.
#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

#include "scale/rows.h"
#include "scale/stages.h"

namespace qx_scale {
namespace {

constexpr std::int32_t kBest = 100;
constexpr std::int64_t kLastPart = 5000;
constexpr std::int64_t kMiddlePart = 10001;

// The partitions: all rows before the last ones, the last rows, and rows in the middle.
struct Parts {
  explicit Parts(std::int64_t rows)
      : starts{0, static_cast<std::int32_t>(rows - kLastPart), static_cast<std::int32_t>(rows / 2)},
        sizes{static_cast<std::int32_t>(rows - kLastPart), kLastPart, kMiddlePart} {}
  std::int64_t keys[3] = {INT64_MIN, 0, INT64_MAX};
  std::int32_t starts[3];
  std::int32_t sizes[3];
};

// Builds the index from a host's copy that is released on return.
bool build(QxIndex* index, const Rows& rows, const Parts& parts) {
  const auto bytes = static_cast<std::size_t>(rows.count() * Rows::kRowBytes);
  const Repeated vectors(rows.piece(), bytes, Writes::kPrivate);
  for (const auto& [row, vector] : rows.champions()) {
    std::memcpy(vectors.as<float>() + row * kWidth, vector.data(), Rows::kRowBytes);
  }
  Ids ids;
  ids.reserve(static_cast<std::size_t>(rows.count()));
  for (std::int64_t row = 0; row < rows.count(); ++row) ids.push_back(Rows::id_of(row));
  return qx_index_build(index, vectors.as<float>(), rows.count(), std::int32_t{kWidth}, ids.data(),
                        parts.keys, parts.starts, parts.sizes, 3) == 0;
}

// The best of rows `first` to `first + count - 1`.
Hits best_of_rows(const Rows& rows, std::int64_t first, std::int64_t count) {
  Oracle oracle(kBest);
  for (std::int64_t row = first; row < first + count; ++row) {
    oracle.offer(rows.score(row), Rows::id_of(row));
  }
  return oracle.hits();
}

void search_sealed(const QxIndex* index, const Rows& rows, const Parts& parts, Report& report) {
  const float* const query = rows.query().data();
  const Hits best = best_of_rows(rows, 0, rows.count());
  Hits best_of_part[3];
  for (int p = 0; p < 3; ++p) best_of_part[p] = best_of_rows(rows, parts.starts[p], parts.sizes[p]);
  Ids listed;
  qx_test::Random random(9);
  Oracle oracle(kBest);
  for (int i = 0; i < 20000; ++i) {
    const std::int64_t row = rows.count() - 1 - random.between(0, rows.count() - 1) * i / 20000;
    listed.push_back(Rows::id_of(row));
    listed.push_back(Rows::id_of(row) + 1);  // an id without a row
    oracle.offer(rows.score(row), Rows::id_of(row));
  }
  under_every_kernel([&] {
    report.expect(best == hits_of(kBest, qx_index_search_full, index, query), "the whole base");
    for (int p = 0; p < 3; ++p) {
      report.expect(
          best_of_part[p] == hits_of(kBest, qx_index_search_partition, index, parts.keys[p], query),
          "a partition");
    }
    report.expect(oracle.hits() == hits_of(kBest, qx_index_scatter_topk, index, listed.data(),
                                           listed.size(), query),
                  "candidates");
  });
}

// The rows inserted and deleted, and the visible ones.
struct Changed {
  Ids inserted;
  Floats vectors;
  std::set<std::int64_t> deleted;
};

// Deletes every other champion, inserts the others again with worse vectors, and inserts ids larger
// than all others.
Changed change(QxIndex* index, const Rows& rows) {
  Changed changed;
  const auto insert = [&](std::int64_t id, float factor) {
    changed.inserted.push_back(id);
    for (const float value : rows.query()) changed.vectors.push_back(value * factor);
  };
  for (const auto& [row, vector] : rows.champions()) {
    if (row % 2 == 0) {
      changed.deleted.insert(Rows::id_of(row));
    } else {
      insert(Rows::id_of(row), 0.125f);
    }
  }
  insert(INT64_MAX, 3);
  insert(INT64_MIN, -3);
  const Ids deleted(changed.deleted.begin(), changed.deleted.end());
  qx_index_insert(index, changed.vectors.data(), changed.inserted.data(),
                  static_cast<std::int32_t>(changed.inserted.size()));
  qx_index_delete(index, deleted.data(), static_cast<std::int32_t>(deleted.size()));
  return changed;
}

// Calls visit(id, score) for each visible row, in the order of the contract. The changed base rows
// are champions.
template <typename Visit>
void walk(const Rows& rows, const Changed& changed, Visit visit) {
  for (std::size_t i = 0; i < changed.inserted.size(); ++i) {
    visit(changed.inserted[i], score_of(changed.vectors.data() + i * kWidth, rows.query()));
  }
  for (std::int64_t row = 0; row < rows.count(); ++row) {
    if (rows.champions().count(row) == 0) visit(Rows::id_of(row), rows.score(row));
  }
}

void search_current(const QxIndex* index, const Rows& rows, const Changed& changed,
                    Report& report) {
  const float* const query = rows.query().data();
  Oracle oracle(kBest);
  walk(rows, changed, [&](std::int64_t id, float score) { oracle.offer(score, id); });
  Ids listed = oracle.hits().ids;
  listed.insert(listed.end(), changed.deleted.begin(), changed.deleted.end());
  std::printf("  after changes\n");
  under_every_kernel([&] {
    report.expect(oracle.hits() == hits_of(kBest, qx_index_search_filtered, index, 0, 0, 0, query),
                  "every visible row");
    report.expect(oracle.hits() == hits_of(kBest, qx_index_search_mvcc, index, listed.data(),
                                           listed.size(), query),
                  "candidates as they are now");
  });
}

// Labels rows near both ends; a deleted row keeps its label, and does not match.
void match(QxIndex* index, const Rows& rows, const Changed& changed, Report& report) {
  Ids labelled = {Rows::id_of(1), *changed.deleted.rbegin(), Rows::id_of(rows.count() - 7)};
  const Ids labels(labelled.size(), 5);
  qx_index_set_rowmeta(index, labelled.data(), labels.data(), nullptr, 0,
                       static_cast<std::int32_t>(labelled.size()));
  Ids matching(labelled.size());
  const std::int64_t count = qx_index_match_ids(index, 1, 0, 5, matching.data());
  report.expect(count == 2 && matching[0] == labelled[0] && matching[1] == labelled[2],
                "ids by label");
}

bool has_vector(const float* found, const float* expected) {
  return std::equal(found, found + kWidth, expected, [](float a, float b) {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
  });
}

// True if a repeated buffer ends with the vectors of the base's last rows, where champions are
// skipped unless `champions_too`.
bool ends_with_base(const float* end, const Rows& rows, bool champions_too) {
  for (std::int64_t row = rows.count() - 1; row >= rows.count() - Rows::kPieceRows / 2; --row) {
    if (!champions_too && rows.champions().count(row) != 0) continue;
    end -= kWidth;
    if (!has_vector(end, rows.vector(row))) return false;
  }
  return true;
}

// The vectors are written into one repeated piece, in which the last ones remain.
void copy_out(const QxIndex* index, const Rows& rows, const Changed& changed, Report& report) {
  const std::int64_t visible = qx_index_visible_count(index);
  Ids expected;
  walk(rows, changed, [&](std::int64_t id, float) { expected.push_back(id); });
  report.expect(visible == static_cast<std::int64_t>(expected.size()), "the visible rows' number");
  Ids ids(expected.size());
  report.expect(qx_index_visible_ids(index, ids.data()) == visible && ids == expected,
                "the visible rows' ids");
  ids.assign(expected.size(), 0);
  const Piece piece(Rows::kPieceRows * Rows::kRowBytes);
  const Repeated copy(piece, static_cast<std::size_t>((rows.count() + 64) * Rows::kRowBytes),
                      Writes::kShared);
  const std::int64_t exported = qx_index_export_visible(index, copy.as<float>(), ids.data());
  report.expect(exported == visible && ids == expected, "the visible rows, copied out: ids");
  report.expect(ends_with_base(copy.as<float>() + visible * kWidth, rows, false),
                "the visible rows, copied out: the last vectors");
  ids.resize(static_cast<std::size_t>(rows.count()));
  bool in_order = qx_index_export_base(index, copy.as<float>(), ids.data()) == rows.count();
  for (std::int64_t row = 0; row < rows.count(); ++row) {
    in_order &= ids[static_cast<std::size_t>(row)] == Rows::id_of(row);
  }
  report.expect(in_order, "the base, copied out: ids");
  report.expect(ends_with_base(copy.as<float>() + rows.count() * kWidth, rows, true),
                "the base, copied out: the last vectors");
}

}  // namespace

// Vectors; ids of host and index, a table of two elements a row, two lists of ids; the pieces.
std::int64_t vectors_stage_bytes(std::int64_t rows) {
  return rows * (Rows::kRowBytes + 16 + 16 + 16) + kGiB / 2;
}

void run_vectors(std::int64_t rows, Report& report) {
  report.stage("a base of many gigabytes");
  const Rows all(rows);
  const Parts parts(rows);
  const Handle index = new_index();
  report.expect(build(index.get(), all, parts), "built");
  search_sealed(index.get(), all, parts, report);
  const Changed changed = change(index.get(), all);
  search_current(index.get(), all, changed, report);
  match(index.get(), all, changed, report);
  copy_out(index.get(), all, changed, report);
}

}  // namespace qx_scale
