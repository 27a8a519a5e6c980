// The base of a sharded index: what its rows must be, and how a new one learns of earlier changes.
#include <algorithm>
#include <cstddef>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {

void ShardedIndex::check_ids(std::int64_t rows, const std::optional<Ids>& ids) const {
  require(rows >= 0, "there are ", rows, " rows");
  if (!ids) return;
  require(std::ssize(*ids) == rows, ids->size(), " ids for ", rows, " rows");
  for (const std::int64_t id : *ids) {
    require(id >= 0 && id <= QX_MAX_BASE_ID, "the id ", id, " is outside 0 to 2^40 - 1");
  }
}

// Sends each id to its owner, and adds those that arrive here.
void ShardedIndex::route(Ids ids, Numbers& received) const {
  std::vector<int> sent_counts, sent_begins, counts, begins;
  Numbers sent;
  ranks_.together([&] {
    sent_counts = counts_by_owner(ids);
    sent_begins = begins_of(sent_counts);
    counts.resize(sent_counts.size());
    sent.resize(ids.size());
    std::vector<int> places = sent_begins;
    for (const std::int64_t id : ids) sent[at(places[at(owner_of(id))]++)] = id;
  });
  MPI_Alltoall(sent_counts.data(), 1, MPI_INT, counts.data(), 1, MPI_INT, ranks_.handle());
  const std::size_t before = received.size();
  ranks_.together([&] {
    begins = begins_of(counts);
    received.resize(before + at(begins.back()) + at(counts.back()));
  });
  MPI_Alltoallv(sent.data(), sent_counts.data(), sent_begins.data(), MPI_INT64_T,
                received.data() + before, counts.data(), begins.data(), MPI_INT64_T,
                ranks_.handle());
}

// All rows of an id would meet at its owner.
void ShardedIndex::check_distinct(Ids ids) const {
  constexpr std::int64_t kIdsPerRound = std::int64_t{1} << 20;
  Numbers met;
  const std::int64_t most = ranks_.most(std::ssize(ids));
  for (std::int64_t first = 0; first < most; first += kIdsPerRound) {
    const std::int64_t begin = std::min(first, std::ssize(ids));
    const std::int64_t count = std::min(kIdsPerRound, std::ssize(ids) - begin);
    route(ids.subspan(at(begin), at(count)), met);
  }
  ranks_.together([&] {
    std::sort(met.begin(), met.end());
    const auto twice = std::adjacent_find(met.begin(), met.end());
    if (twice != met.end()) require(false, "the id ", *twice, " stands on more than one base row");
  });
}

void ShardedIndex::build(Floats vectors, std::optional<Ids> ids) {
  check_whole();
  std::int64_t rows = 0;
  ranks_.together([&] { rows = count_of("vectors", vectors); });
  Base base = prepare(rows, ids);
  ranks_.together([&] { base.engine->build(vectors, numbered(rows)); });
  replace_base(std::move(base));
}

void ShardedIndex::build_from(std::int64_t rows, const Read& read, std::optional<Ids> ids) {
  check_whole();
  Base base = prepare(rows, ids);
  ranks_.in_turns([&] {
    std::vector<float> vectors(at(rows * dim_));
    read(vectors);
    base.engine->build(vectors, numbered(rows));
  });
  replace_base(std::move(base));
}

// All of a base but its vectors.
ShardedIndex::Base ShardedIndex::prepare(std::int64_t rows, const std::optional<Ids>& ids) const {
  ranks_.together([&] { check_ids(rows, ids); });
  const std::int64_t with_ids = ranks_.sum(ids ? 1 : 0);
  require(with_ids == 0 || with_ids == ranks_.size(), "some ranks give ids and others do not");
  Base base;
  base.rows = rows;
  base.first_row = ranks_.sum_before(rows);
  base.total_rows = ranks_.sum(rows);
  require(base.total_rows <= QX_MAX_BASE_ID + 1, "the base has more than 2^40 rows");
  if (ids) check_distinct(*ids);
  ranks_.together([&] {
    base.engine.emplace(dim_);
    if (!ids) return;
    base.ids.assign(ids->begin(), ids->end());
    base.rows_by_id = numbered(rows);
    std::sort(base.rows_by_id.begin(), base.rows_by_id.end(),
              [&](std::int64_t one, std::int64_t other) {
                return base.ids[at(one)] < base.ids[at(other)];
              });
  });
  return base;
}

// Makes a base that of the index, and tells it what has happened to its ids.
void ShardedIndex::replace_base(Base base) {
  base_ = std::move(base);
  ivfs_.clear();
  change([&] {
    ranks_.together([&] {
      if (columns_ > 0) base_.engine->set_rowmeta({}, {}, {}, columns_);
    });
    if (ranks_.sum(std::ssize(owned_)) == 0) return;
    for (int owner = 0; owner < ranks_.size(); ++owner) replay_changes_of(owner);
  });
}

void ShardedIndex::replay_changes_of(int owner) {
  Numbers hidden, described;
  RowMeta meta;
  ranks_.together([&] {
    if (ranks_.rank() != owner) return;
    for (const auto& [id, state] : owned_) {
      if (state.deleted || state.sequence >= 0) hidden.push_back(id);
      if (state.described) described.push_back(id);
    }
    meta = delta_->export_rowmeta(described);
  });
  hidden = ranks_.shared(Ids(hidden), owner);
  described = ranks_.shared(Ids(described), owner);
  meta.labels = ranks_.shared(Ids(meta.labels), owner);
  meta.values = ranks_.shared(Ids(meta.values), owner);
  ranks_.together([&] {
    hide(hidden);
    describe(*base_.engine, base_part(described), meta.labels, meta.values, columns_);
  });
}

}  // namespace qx
