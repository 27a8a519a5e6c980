// Rows and changes. The searches are in sharded_search.cpp.
#include "sharded_index.hpp"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>

namespace qx {
namespace {

constexpr std::int64_t kIdLimit = std::int64_t{1} << 40;
constexpr std::int64_t kIdsPerRound = std::int64_t{1} << 20;
constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

std::size_t at(std::int64_t position) { return static_cast<std::size_t>(position); }

void require(bool condition, const std::string& message) {
  if (!condition) throw InvalidArgument(message);
}

std::int32_t agreed_dim(const Communicator& ranks, std::int32_t dim) {
  const std::int64_t least = ranks.least(dim);
  const std::int64_t most = ranks.most(dim);
  require(least == most, "the dimension differs between ranks: it is " + std::to_string(least) +
                             " on one and " + std::to_string(most) + " on another");
  require(dim >= 1, "the dimension is " + std::to_string(dim) + ", and must be 1 or more");
  return dim;
}

// Where the part of each rank begins, one part after the other.
std::vector<int> begins_of(const std::vector<int>& counts) {
  std::vector<int> begins(counts.size());
  std::exclusive_scan(counts.begin(), counts.end(), begins.begin(), 0);
  return begins;
}

}  // namespace

std::pair<std::int64_t, std::int64_t> rows_of_rank(int rank, int ranks, std::int64_t rows) {
  const std::int64_t each = rows / ranks;
  const std::int64_t more = rows % ranks;  // the first ranks have one more
  const std::int64_t first = rank * each + std::min<std::int64_t>(rank, more);
  return {first, each + (rank < more ? 1 : 0)};
}

ShardedIndex::ShardedIndex(MPI_Comm ranks, std::int32_t dim)
    : ranks_(ranks), dim_(agreed_dim(ranks_, dim)) {
  ranks_.together([&] {
    base_.emplace(dim_);
    delta_.emplace(dim_);
  });
}

int ShardedIndex::owner_of(std::int64_t id) const {
  auto mixed = static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15u;
  mixed = (mixed ^ (mixed >> 32)) * 0xD6E8FEB86659FD93u;
  return static_cast<int>((mixed >> 32) % static_cast<std::uint64_t>(ranks_.size()));
}

// The local row of an id, or -1.
std::int64_t ShardedIndex::find_row(std::int64_t id) const {
  if (ids_.empty()) {
    // Compared before the subtraction, which would overflow for some ids.
    return id >= first_row_ && id < first_row_ + rows_ ? id - first_row_ : -1;
  }
  const auto before = [&](std::int64_t row, std::int64_t wanted) { return ids_[at(row)] < wanted; };
  const auto found = std::lower_bound(rows_by_id_.begin(), rows_by_id_.end(), id, before);
  return found != rows_by_id_.end() && ids_[at(*found)] == id ? *found : -1;
}

std::int64_t ShardedIndex::id_of_row(std::int64_t row) const {
  return ids_.empty() ? first_row_ + row : ids_[at(row)];
}

void ShardedIndex::check_whole() const {
  if (broken_) throw LogicError("a change has failed on some ranks; build a new index");
}

// A step that changes this rank: where it fails on some rank, it may have been done on others.
template <typename Step>
void ShardedIndex::change(Step&& step) {
  try {
    ranks_.together(step);
  } catch (...) {
    broken_ = true;
    throw;
  }
}

// Rank 0's ids, on every rank.
std::vector<std::int64_t> ShardedIndex::shared_ids(Ids ids) const {
  const std::int64_t count = ranks_.from_root([&] { return std::int64_t{std::ssize(ids)}; });
  std::vector<std::int64_t> shared;
  ranks_.together([&] {
    shared.resize(at(count));
    if (ranks_.is_root()) std::copy(ids.begin(), ids.end(), shared.begin());
  });
  ranks_.broadcast(std::span(shared));
  return shared;
}

std::int64_t ShardedIndex::visible_count() const {
  check_whole();
  return ranks_.sum(base_->visible_count() + delta_->visible_count());
}

// ---- The base ----

void ShardedIndex::check_given(Floats vectors, const std::optional<Ids>& ids) const {
  const auto width = at(dim_);
  require(vectors.size() % width == 0, "the vectors are " + std::to_string(vectors.size()) +
                                           " floats, no multiple of the dimension " +
                                           std::to_string(dim_));
  if (!ids) return;
  require(
      ids->size() == vectors.size() / width,
      std::to_string(ids->size()) + " ids for " + std::to_string(vectors.size() / width) + " rows");
  for (const std::int64_t id : *ids) {
    require(id >= 0 && id < kIdLimit, "the id " + std::to_string(id) + " is outside 0 to 2^40 - 1");
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
  ranks_.together([&] { check_given(vectors, ids); });
  const std::int64_t with_ids = ranks_.sum(ids ? 1 : 0);
  require(with_ids == 0 || with_ids == ranks_.size(), "some ranks give ids and others do not");
  const std::int64_t rows = std::ssize(vectors) / dim_;
  const std::int64_t first = ranks_.sum_before(rows);
  const std::int64_t total = ranks_.sum(rows);
  require(total <= kIdLimit, "the base has more than 2^40 rows");
  if (ids) check_distinct(*ids);
  std::optional<Index> base;
  std::vector<std::int64_t> own_ids;
  std::vector<std::int64_t> by_id;
  ranks_.together([&] {
    by_id.resize(at(rows));
    std::iota(by_id.begin(), by_id.end(), 0);
    base.emplace(dim_);
    base->build(vectors, by_id);
    if (ids) own_ids.assign(ids->begin(), ids->end());
    std::sort(by_id.begin(), by_id.end(), [&](std::int64_t one, std::int64_t other) {
      return own_ids.empty() ? one < other : own_ids[at(one)] < own_ids[at(other)];
    });
    if (!ids) by_id = {};
  });
  base_ = std::move(base);
  ids_ = std::move(own_ids);
  rows_by_id_ = std::move(by_id);
  rows_ = rows;
  first_row_ = first;
  total_rows_ = total;
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

// ---- Changes ----

void ShardedIndex::insert(Floats vectors, Ids ids) {
  check_whole();
  const std::int64_t count = ranks_.from_root([&] {
    check_given(vectors, std::nullopt);
    const std::int64_t rows = std::ssize(vectors) / dim_;
    require(rows == std::ssize(ids),
            std::to_string(ids.size()) + " ids for " + std::to_string(rows) + " rows");
    return rows;
  });
  if (count == 0) return;
  // In parts, so that what a rank holds for a moment has a bound.
  const std::int64_t step = std::max<std::int64_t>(1, kBytesPerPart / (4 * std::int64_t{dim_}));
  for (std::int64_t first = 0; first < count; first += step) {
    const std::int64_t rows = std::min(step, count - first);
    const bool gives = ranks_.is_root();
    try {
      insert_part(gives ? vectors.subspan(at(first * dim_), at(rows * dim_)) : Floats(),
                  gives ? ids.subspan(at(first), at(rows)) : Ids());
    } catch (...) {
      broken_ = broken_ || first > 0;  // half a call has been made
      throw;
    }
  }
  ++snapshot_;
}

void ShardedIndex::insert_part(Floats vectors, Ids ids) {
  const std::vector<std::int64_t> all = shared_ids(ids);
  const std::vector<float> own = scatter_vectors(all, vectors);
  change([&] { take_in(all, own, next_sequence_); });
  next_sequence_ += std::ssize(all);
}

// Sends rank 0's vectors to the owners of their ids, and gives those that arrive here.
std::vector<float> ShardedIndex::scatter_vectors(Ids ids, Floats vectors) const {
  std::vector<int> counts;
  std::vector<int> begins;
  std::vector<float> packed;
  std::vector<float> own;
  ranks_.together([&] {
    counts.resize(at(ranks_.size()));
    for (const std::int64_t id : ids) ++counts[at(owner_of(id))];
    begins = begins_of(counts);
    own.resize(at(counts[at(ranks_.rank())]) * at(dim_));
    if (!ranks_.is_root()) return;
    packed.resize(vectors.size());
    std::vector<int> places = begins;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      const std::int64_t place = places[at(owner_of(ids[i]))]++;
      std::copy_n(vectors.begin() + static_cast<std::ptrdiff_t>(i) * dim_, dim_,
                  packed.begin() + place * dim_);
    }
  });
  MPI_Datatype row = MPI_DATATYPE_NULL;
  MPI_Type_contiguous(dim_, MPI_FLOAT, &row);
  MPI_Type_commit(&row);
  MPI_Scatterv(packed.data(), counts.data(), begins.data(), row, own.data(),
               counts[at(ranks_.rank())], row, 0, ranks_.handle());
  MPI_Type_free(&row);
  return own;
}

void ShardedIndex::take_in(Ids ids, Floats own_vectors, std::int64_t first_sequence) {
  std::vector<std::int64_t> own;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!owns(ids[i])) continue;
    own.push_back(ids[i]);
    Owned& state = owned_[ids[i]];
    state.deleted = false;
    if (state.sequence < 0) state.sequence = first_sequence + static_cast<std::int64_t>(i);
  }
  delta_->insert(own_vectors, own);
  hide_rows(ids);
}

void ShardedIndex::erase(Ids ids) {
  check_whole();
  const std::vector<std::int64_t> all = shared_ids(ids);
  if (all.empty()) return;
  change([&] {
    std::vector<std::int64_t> own;
    for (const std::int64_t id : all) {
      if (!owns(id)) continue;
      own.push_back(id);
      owned_[id].deleted = true;
    }
    delta_->erase(own);
    hide_rows(all);
  });
  ++snapshot_;
}

void ShardedIndex::set_rowmeta(Ids ids, Ids labels, Ids values, std::int32_t ncols) {
  check_whole();
  const std::int32_t width = ranks_.from_root([&] {
    require(ncols >= columns_, "ncols is " + std::to_string(ncols) + ", and the index has " +
                                   std::to_string(columns_) + " columns");
    require(labels.size() == ids.size() && values.size() == ids.size() * at(ncols),
            std::to_string(labels.size()) + " labels and " + std::to_string(values.size()) +
                " values for " + std::to_string(ids.size()) + " ids of " + std::to_string(ncols) +
                " columns");
    return ncols;
  });
  const std::vector<std::int64_t> all = shared_ids(ids);
  const std::vector<std::int64_t> all_labels = shared_ids(labels);
  const std::vector<std::int64_t> all_values = shared_ids(values);
  change([&] {
    std::vector<std::int64_t> own;
    std::vector<std::int64_t> own_labels;
    std::vector<std::int64_t> own_values;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (!owns(all[i])) continue;
      owned_[all[i]].described = true;
      own.push_back(all[i]);
      own_labels.push_back(all_labels[i]);
      const Ids row = Ids(all_values).subspan(i * at(width), at(width));
      own_values.insert(own_values.end(), row.begin(), row.end());
    }
    delta_->set_rowmeta(own, own_labels, own_values, width);
    describe_rows(all, all_labels, all_values, width);
  });
  columns_ = width;
}

}  // namespace qx
