// Changes, and which rank has what of an id.
#include "sharded_index.hpp"

#include <algorithm>
#include <cstddef>

#include "support.hpp"

namespace qx {
namespace {

constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

std::int32_t agreed_dim(const Communicator& ranks, std::int32_t dim) {
  const std::int64_t least = ranks.least(dim);
  const std::int64_t most = ranks.most(dim);
  require(least == most, "the dimension differs between ranks: it is ", least, " on one and ", most,
          " on another");
  require(dim >= 1, "the dimension is ", dim, ", and must be 1 or more");
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
    base_.engine.emplace(dim_);
    delta_.emplace(dim_);
    question_.resize(Communicator::kBlockHead + sizeof(Asked) + sizeof(float) * at(dim_));
  });
}

int ShardedIndex::owner_of(std::int64_t id) const {
  auto mixed = static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15u;
  mixed = (mixed ^ (mixed >> 32)) * 0xD6E8FEB86659FD93u;
  return static_cast<int>((mixed >> 32) % static_cast<std::uint64_t>(ranks_.size()));
}

std::vector<int> ShardedIndex::counts_by_owner(Ids ids) const {
  std::vector<int> counts(at(ranks_.size()));
  for (const std::int64_t id : ids) ++counts[at(owner_of(id))];
  return counts;
}

// The local row of an id, or -1.
std::int64_t ShardedIndex::find_row(std::int64_t id) const {
  const Base& base = base_;
  if (base.ids.empty()) {
    // Compared before the subtraction, which would overflow for some ids.
    const bool is_here = id >= base.first_row && id < base.first_row + base.rows;
    return is_here ? id - base.first_row : -1;
  }
  const auto before = [&](std::int64_t row, std::int64_t wanted) {
    return base.ids[at(row)] < wanted;
  };
  const auto found = std::lower_bound(base.rows_by_id.begin(), base.rows_by_id.end(), id, before);
  return found != base.rows_by_id.end() && base.ids[at(*found)] == id ? *found : -1;
}

std::int64_t ShardedIndex::id_of_row(std::int64_t row) const {
  return base_.ids.empty() ? base_.first_row + row : base_.ids[at(row)];
}

ShardedIndex::Part ShardedIndex::base_part(Ids ids) const {
  Part part;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::int64_t row = find_row(ids[i]);
    if (row < 0) continue;
    part.ids.push_back(row);
    part.places.push_back(static_cast<std::int64_t>(i));
  }
  return part;
}

ShardedIndex::Part ShardedIndex::delta_part(Ids ids) const {
  Part part;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (owner_of(ids[i]) != ranks_.rank()) continue;
    part.ids.push_back(ids[i]);
    part.places.push_back(static_cast<std::int64_t>(i));
  }
  return part;
}

std::int64_t ShardedIndex::count_of(const char* what, Floats vectors) const {
  require(vectors.size() % at(dim_) == 0, "the ", what, " are ", vectors.size(),
          " floats, no multiple of the dimension ", dim_);
  return std::ssize(vectors) / dim_;
}

void ShardedIndex::check_whole() const {
  if (broken_) throw LogicError("a change has failed on some ranks; build a new index");
}

std::int64_t ShardedIndex::visible_count() const {
  check_whole();
  return ranks_.sum(base_.engine->visible_count() + delta_->visible_count());
}

// ---- Changes ----

void ShardedIndex::insert(Floats vectors, Ids ids) {
  check_whole();
  const std::int64_t count = ranks_.from_root([&] {
    const std::int64_t rows = count_of("vectors", vectors);
    require(rows == std::ssize(ids), ids.size(), " ids for ", rows, " rows");
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
  const Numbers all = ranks_.shared(ids);
  const std::vector<float> own_vectors = scatter_vectors(all, vectors);
  const auto take_in = [&] {
    const Part own = delta_part(all);
    for (std::size_t i = 0; i < own.ids.size(); ++i) {
      Owned& state = owned_[own.ids[i]];
      state.deleted = false;
      if (state.sequence < 0) state.sequence = next_sequence_ + own.places[i];
    }
    delta_->insert(own_vectors, own.ids);
    hide(all);
  };
  change([&] { ranks_.together(take_in); });
  next_sequence_ += std::ssize(all);
}

// Sends rank 0's vectors to the owners of their ids, and gives those that arrive here.
std::vector<float> ShardedIndex::scatter_vectors(Ids ids, Floats vectors) const {
  std::vector<int> counts, begins;
  std::vector<float> packed, own;
  ranks_.together([&] {
    counts = counts_by_owner(ids);
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

// Deletes the local base rows of ids.
void ShardedIndex::hide(Ids ids) { base_.engine->erase(base_part(ids).ids); }

void ShardedIndex::erase(Ids ids) {
  check_whole();
  ranks_.from_root([&] {
    require_countable(ids.size(), "ids");
    return true;
  });
  const Numbers all = ranks_.shared(ids);
  if (all.empty()) return;
  const auto erase_own = [&] {
    const Part own = delta_part(all);
    for (const std::int64_t id : own.ids) owned_[id].deleted = true;
    delta_->erase(own.ids);
    hide(all);
  };
  change([&] { ranks_.together(erase_own); });
  ++snapshot_;
}

void ShardedIndex::set_rowmeta(Ids ids, Ids labels, Ids values, std::int32_t ncols) {
  check_whole();
  const std::int32_t width = ranks_.from_root([&] {
    require(ncols >= columns_, "ncols is ", ncols, ", and the index has ", columns_, " columns");
    require(labels.size() == ids.size() && values.size() == ids.size() * at(ncols), labels.size(),
            " labels and ", values.size(), " values for ", ids.size(), " ids of ", ncols,
            " columns");
    require_countable(ids.size(), "ids");
    return ncols;
  });
  const Numbers all = ranks_.shared(ids);
  const Numbers all_labels = ranks_.shared(labels);
  const Numbers all_values = ranks_.shared(values);
  const auto describe_own = [&] {
    const Part own = delta_part(all);
    for (const std::int64_t id : own.ids) owned_[id].described = true;
    describe(*delta_, own, all_labels, all_values, width);
    describe(*base_.engine, base_part(all), all_labels, all_values, width);
  };
  change([&] { ranks_.together(describe_own); });
  columns_ = width;
}

// Gives the ids of an engine their metadata, and the engine the columns.
void ShardedIndex::describe(Index& engine, const Part& part, Ids labels, Ids values,
                            std::int32_t ncols) {
  Numbers own_labels, own_values;
  for (const std::int64_t place : part.places) {
    own_labels.push_back(labels[at(place)]);
    const Ids row = values.subspan(at(place * ncols), at(ncols));
    own_values.insert(own_values.end(), row.begin(), row.end());
  }
  engine.set_rowmeta(part.ids, own_labels, own_values, ncols);
}

}  // namespace qx
