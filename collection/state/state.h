// What a read sees: the parts of a collection at one moment. Whether a row is visible is decided
// here.
#pragma once

#include "lists/lists.h"
#include "state/segment.h"
#include "state/tail.h"

namespace qx::collection {

// A part as a state sees it.
struct PartView {
  std::shared_ptr<Part> part;
  const Segment* segment;  // null if the part is a tail
  std::int64_t rows;
  std::int64_t dead = 0;   // of them, those that are not visible
  std::uint32_t seen = 0;  // how many of the changes that killed rows
  // A bit for each row that a view hides from itself; none without a view's changes.
  std::shared_ptr<std::vector<std::uint64_t>> hidden;
  std::shared_ptr<const Members> members;  // of a segment, in a state that has lists

  bool is_hidden(std::int64_t row) const {
    return hidden != nullptr &&
           ((*hidden)[static_cast<std::size_t>(row / 64)] >> row % 64 & 1) != 0;
  }
  bool is_visible(std::int64_t row) const {
    return part->liveness.is_alive(row, seen) && !is_hidden(row);
  }
  // The visible ones of up to 64 rows. Requires: first is a multiple of 64.
  std::uint64_t mask(std::int64_t first, std::int64_t count) const {
    const std::uint64_t alive = part->liveness.mask(first, count, seen);
    return hidden == nullptr ? alive : alive & ~(*hidden)[static_cast<std::size_t>(first / 64)];
  }
  // The visible row of an id, or -1.
  std::int64_t find(const Key& key) const {
    const std::int64_t row = part->find(key, rows, seen);
    return row >= 0 && is_hidden(row) ? -1 : row;
  }
};

// By what the rows of a collection are divided into lists.
inline Nearness nearness_of(const Shape& shape) {
  return shape.metric == Metric::kEuclidean ? Nearness::kDistance : Nearness::kInnerProduct;
}

// Where a row is: in eight bytes, since merges list all rows.
class Location {
 public:
  Location() = default;  // nowhere
  Location(std::size_t part, std::int64_t row)
      : place_((part + 1) << kRowBits | static_cast<std::uint64_t>(row)) {}

  bool exists() const { return place_ != 0; }
  std::size_t part() const { return (place_ >> kRowBits) - 1; }
  std::int64_t row() const {
    return static_cast<std::int64_t>(place_ & ((std::uint64_t{1} << kRowBits) - 1));
  }
  friend auto operator<=>(const Location&, const Location&) = default;

 private:
  static constexpr int kRowBits = 40;
  std::uint64_t place_ = 0;
};

// Invariant: an id has at most one visible row.
struct State {
  std::vector<PartView> parts;
  std::shared_ptr<const Lists> lists;  // null: none

  std::int64_t visible_rows() const {
    std::int64_t rows = 0;
    for (const PartView& view : parts) rows += view.rows - view.dead;
    return rows;
  }
  const Part& part(Location at) const { return *parts[at.part()].part; }
  Key key(Location at) const { return part(at).key(at.row()); }

  // The visible row of an id.
  Location find(const Key& key) const {
    for (std::size_t p = parts.size(); p-- > 0;) {
      const std::int64_t row = parts[p].find(key);
      if (row >= 0) return {p, row};
    }
    return {};
  }
};

// The list of each row. Requires: the state has lists.
class RowLists {
 public:
  explicit RowLists(const State& state);
  ListNumber of(Location at) const { return lists_[at.part()][static_cast<std::size_t>(at.row())]; }

 private:
  std::vector<std::vector<ListNumber>> lists_;
};

// The vectors of `most` visible rows, or all: at even distances in the order of ids.
std::vector<const float*> sample_of(const State& state, std::int64_t most);

// The visible rows in ascending order of their ids.
class Cursor {
 public:
  // From the first row on whose id is above `after`, or with null from the first.
  Cursor(const State& state, const Key* after);

  // Gives the next row. Returns false after the last one.
  bool next(Location* at);

 private:
  // A part whose next row has this id.
  struct Head {
    Key key;
    std::size_t part;
    bool operator<(const Head& other) const { return key > other.key; }  // least on top of a heap
  };
  struct Rest {
    std::int64_t next;
    std::vector<std::int64_t> order;  // of a tail: its visible rows by id
  };
  void advance(std::size_t part);
  std::int64_t row_of(std::size_t part) const;
  void sort_tail(std::size_t part, const Key* after);

  const State& state_;
  std::vector<Rest> rests_;
  std::vector<Head> heads_;
};

}  // namespace qx::collection
