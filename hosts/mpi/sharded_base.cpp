// The base of a sharded index: what its rows must be, and how a new one learns of earlier changes.
#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {
namespace {

constexpr std::int64_t kIdsPerRound = std::int64_t{1} << 20;

}  // namespace

void ShardedIndex::check_vectors(Floats vectors) const {
  require(vectors.size() % at(dim_) == 0, "the vectors are " + std::to_string(vectors.size()) +
                                              " floats, no multiple of the dimension " +
                                              std::to_string(dim_));
}

void ShardedIndex::check_ids(std::int64_t rows, const std::optional<Ids>& ids) const {
  require(rows >= 0, "there are " + std::to_string(rows) + " rows");
  if (!ids) return;
  require(std::ssize(*ids) == rows,
          std::to_string(ids->size()) + " ids for " + std::to_string(rows) + " rows");
  for (const std::int64_t id : *ids) {
    require(id >= 0 && id <= QX_MAX_BASE_ID,
            "the id " + std::to_string(id) + " is outside 0 to 2^40 - 1");
  }
}

// Sends each id to its owner, and adds those that arrive here.
void ShardedIndex::route(Ids ids, std::vector<std::int64_t>& received) const {
  const auto ranks = at(ranks_.size());
  std::vector<int> sent_counts;
  std::vector<int> counts;
  std::vector<std::int64_t> sent;
  ranks_.together([&] {
    sent_counts.resize(ranks);
    counts.resize(ranks);
    for (const std::int64_t id : ids) ++sent_counts[at(owner_of(id))];
    std::vector<int> places = begins_of(sent_counts);
    sent.resize(ids.size());
    for (const std::int64_t id : ids) sent[at(places[at(owner_of(id))]++)] = id;
  });
  MPI_Alltoall(sent_counts.data(), 1, MPI_INT, counts.data(), 1, MPI_INT, ranks_.handle());
  const std::size_t before = received.size();
  std::vector<int> sent_begins;
  std::vector<int> begins;
  ranks_.together([&] {
    sent_begins = begins_of(sent_counts);
    begins = begins_of(counts);
    received.resize(before + at(begins.back()) + at(counts.back()));
  });
  MPI_Alltoallv(sent.data(), sent_counts.data(), sent_begins.data(), MPI_INT64_T,
                received.data() + before, counts.data(), begins.data(), MPI_INT64_T,
                ranks_.handle());
}

// All rows of an id would meet at its owner.
void ShardedIndex::check_distinct(Ids ids) const {
  std::vector<std::int64_t> met;
  const std::int64_t most = ranks_.most(std::ssize(ids));
  for (std::int64_t first = 0; first < most; first += kIdsPerRound) {
    const std::int64_t begin = std::min(first, std::ssize(ids));
    const std::int64_t count = std::min(kIdsPerRound, std::ssize(ids) - begin);
    route(ids.subspan(at(begin), at(count)), met);
  }
  ranks_.together([&] {
    std::sort(met.begin(), met.end());
    const auto twice = std::adjacent_find(met.begin(), met.end());
    require(twice == met.end(), "the id " + (twice == met.end() ? "" : std::to_string(*twice)) +
                                    " stands on more than one base row");
  });
}

void ShardedIndex::build(Floats vectors, std::optional<Ids> ids) {
  check_whole();
  ranks_.together([&] { check_vectors(vectors); });
  Base base = prepare(std::ssize(vectors) / dim_, ids);
  ranks_.together([&] { base.engine->build(vectors, base.numbers); });
  replace_base(base);
}

void ShardedIndex::build_from(std::int64_t rows, const Read& read, std::optional<Ids> ids) {
  check_whole();
  Base base = prepare(rows, ids);
  ranks_.in_turns([&] {
    std::vector<float> vectors(at(rows * dim_));
    read(vectors);
    base.engine->build(vectors, base.numbers);
  });
  replace_base(base);
}

// All of a base but its vectors.
ShardedIndex::Base ShardedIndex::prepare(std::int64_t rows, const std::optional<Ids>& ids) const {
  ranks_.together([&] { check_ids(rows, ids); });
  const std::int64_t with_ids = ranks_.sum(ids ? 1 : 0);
  require(with_ids == 0 || with_ids == ranks_.size(), "some ranks give ids and others do not");
  Base base;
  base.first_row = ranks_.sum_before(rows);
  base.total_rows = ranks_.sum(rows);
  require(base.total_rows <= QX_MAX_BASE_ID + 1, "the base has more than 2^40 rows");
  if (ids) check_distinct(*ids);
  ranks_.together([&] {
    base.numbers.resize(at(rows));
    std::iota(base.numbers.begin(), base.numbers.end(), 0);
    base.engine.emplace(dim_);
    if (!ids) return;
    base.ids.assign(ids->begin(), ids->end());
    base.rows_by_id = base.numbers;
    std::sort(base.rows_by_id.begin(), base.rows_by_id.end(),
              [&](std::int64_t one, std::int64_t other) {
                return base.ids[at(one)] < base.ids[at(other)];
              });
  });
  return base;
}

void ShardedIndex::replace_base(Base& base) {
  base_ = std::move(base.engine);
  ids_ = std::move(base.ids);
  rows_by_id_ = std::move(base.rows_by_id);
  rows_ = std::ssize(base.numbers);
  first_row_ = base.first_row;
  total_rows_ = base.total_rows;
  ivfs_.clear();
  replay_changes();
}

// Tells the new base what has happened to its ids.
void ShardedIndex::replay_changes() {
  change([&] {
    if (columns_ > 0) base_->set_rowmeta({}, {}, {}, columns_);
  });
  if (ranks_.sum(std::ssize(owned_)) == 0) return;
  for (int owner = 0; owner < ranks_.size(); ++owner) replay_changes_of(owner);
}

void ShardedIndex::replay_changes_of(int owner) {
  std::vector<std::int64_t> hidden;
  RowMeta meta;
  std::vector<std::int64_t> described;
  std::int64_t counts[2] = {0, 0};
  change([&] {
    if (ranks_.rank() != owner) return;
    for (const auto& [id, state] : owned_) {
      if (state.deleted || state.sequence >= 0) hidden.push_back(id);
      if (state.described) described.push_back(id);
    }
    meta = delta_->export_rowmeta(described);
    counts[0] = std::ssize(hidden);
    counts[1] = std::ssize(described);
  });
  ranks_.broadcast(std::span<std::int64_t>(counts), owner);
  change([&] {
    hidden.resize(at(counts[0]));
    described.resize(at(counts[1]));
    meta.labels.resize(at(counts[1]));
    meta.values.resize(at(counts[1] * columns_));
  });
  ranks_.broadcast(std::span(hidden), owner);
  ranks_.broadcast(std::span(described), owner);
  ranks_.broadcast(std::span(meta.labels), owner);
  ranks_.broadcast(std::span(meta.values), owner);
  change([&] {
    hide_rows(hidden);
    describe_rows(described, meta.labels, meta.values, columns_);
  });
}

// Deletes the local base rows of ids.
void ShardedIndex::hide_rows(Ids ids) {
  std::vector<std::int64_t> rows;
  for (const std::int64_t id : ids) {
    if (const std::int64_t row = find_row(id); row >= 0) rows.push_back(row);
  }
  base_->erase(rows);
}

// Gives the local base rows of ids their metadata, and every rank the columns.
void ShardedIndex::describe_rows(Ids ids, Ids labels, Ids values, std::int32_t ncols) {
  std::vector<std::int64_t> rows;
  std::vector<std::int64_t> row_labels;
  std::vector<std::int64_t> row_values;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::int64_t row = find_row(ids[i]);
    if (row < 0) continue;
    rows.push_back(row);
    row_labels.push_back(labels[i]);
    const Ids own = values.subspan(i * at(ncols), at(ncols));
    row_values.insert(row_values.end(), own.begin(), own.end());
  }
  base_->set_rowmeta(rows, row_labels, row_values, ncols);
}

}  // namespace qx
