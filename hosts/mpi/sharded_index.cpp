// Changes, and which rank has what of an id.
#include "sharded_index.hpp"

#include <algorithm>
#include <cstddef>
#include <string>

#include "support.hpp"

namespace qx {
namespace {

constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

std::int32_t agreed_dim(const Communicator& ranks, std::int32_t dim) {
  const std::int64_t least = ranks.least(dim);
  const std::int64_t most = ranks.most(dim);
  require(least == most, "the dimension differs between ranks: it is " + std::to_string(least) +
                             " on one and " + std::to_string(most) + " on another");
  require(dim >= 1, "the dimension is " + std::to_string(dim) + ", and must be 1 or more");
  return dim;
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
    question_.resize(Communicator::kBlockHead + sizeof(Asked) + sizeof(float) * at(dim_));
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

// ---- Changes ----

void ShardedIndex::insert(Floats vectors, Ids ids) {
  check_whole();
  const std::int64_t count = ranks_.from_root([&] {
    check_vectors(vectors);
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
  ranks_.from_root([&] {
    require_countable(ids.size(), "ids");
    return true;
  });
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
    require_countable(ids.size(), "ids");
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
