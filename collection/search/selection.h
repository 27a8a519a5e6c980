// Which rows of a part a search takes: visible ones that pass the filter, are among the listed ids
// and that the host accepts. Decided before anything is ranked.
#pragma once

#include <optional>

#include "state/state.h"

namespace qx::collection {

// What a search asks of rows, checked. `among` belongs to the host.
class Restriction {
 public:
  Restriction(const Shape& shape, const QxSearch* search);

  // True if every visible row passes.
  bool is_empty() const { return !predicate_ && !among_ && accept_ == nullptr; }
  const std::optional<Predicate>& predicate() const { return predicate_; }
  const std::optional<std::vector<Key>>& among() const { return among_; }
  // True if the filter is true of one row.
  bool is_true_of(const Part& part, std::int64_t row) const;
  // Clears the bits of rows that the host does not accept.
  void accept(const Part& part, std::int64_t first, std::int64_t count, std::uint64_t* words) const;

 private:
  bool has_texts_;
  std::size_t columns_;
  std::optional<Predicate> predicate_;
  std::optional<std::vector<Key>> among_;  // sorted
  int32_t (*accept_)(void*, int64_t, const QxText*) = nullptr;
  void* context_ = nullptr;
};

class Selection {
 public:
  enum class Way { kScan, kBitmap, kCandidates };

  // The restriction and the state must live as long.
  Selection(const State& state, const Restriction& restriction);

  // How the rows of a part are found: all of them are taken, or by a bit for each row, or from a
  // list of ids.
  Way way(std::size_t part) const;

  // The selected ones of `count` rows: a bit each, from row `first` on, which is a multiple of 64.
  // Returns how many.
  std::int64_t select(std::size_t part, std::int64_t first, std::int64_t count,
                      std::uint64_t* words) const;

 private:
  void keep_candidates(std::size_t part, std::int64_t first, std::int64_t count,
                       std::uint64_t* words) const;

  const State& state_;
  const Restriction& restriction_;
  std::vector<std::vector<std::int64_t>> candidates_;  // rows of each part, ascending; if listed
};

}  // namespace qx::collection
