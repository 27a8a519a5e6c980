// Changes of a state, made alike for a collection and for a view. Everything that can fail comes
// first; then the changes are made, and nothing can.
#pragma once

#include <functional>
#include <map>

#include "state/state.h"
#include "threads/pool.h"

namespace qx::collection {

// Rows as the host gives them, checked.
class Rows {
 public:
  Rows(const Shape& shape, QxIds ids, const float* vectors, const QxValues* values);
  const std::vector<Key>& keys() const { return keys_; }
  const float* vector(std::size_t row) const;
  Value value(std::size_t row, std::size_t column) const;

 private:
  const Shape& shape_;
  std::vector<Key> keys_;
  const float* vectors_;
  const QxValues* values_;
};

// Ids as the host gives them, checked.
std::vector<Key> keys_of(const Shape& shape, QxIds ids);
void require_count(QxIds ids);

// Refuses vectors with a NaN or an infinity. They are counted from `first` on.
void require_finite(const char* what, const float* vectors, std::size_t count, std::int32_t dim,
                    std::size_t first = 0);

// A new segment, and where the state has lists, the rows of each.
struct Sealed {
  std::shared_ptr<Segment> segment;  // null: of no rows
  std::shared_ptr<Members> members;
};

// The rows of segments by new lists.
using Division = std::map<const Segment*, std::shared_ptr<const Members>>;

// The rows of a segment by lists; null without lists.
std::shared_ptr<Members> divide(const Shape& shape, const Lists* lists, const Segment& segment,
                                const Progress& progress);

class Edit {
 public:
  // Of a state whose parts from `own` on belong to the caller. Rows of the others are hidden from
  // the new state; those of own parts are killed.
  Edit(const Shape& shape, const State& state, std::size_t own)
      : shape_(shape), next_(state), own_(own) {}
  Edit(const Edit&) = delete;
  ~Edit() {
    if (written_ != nullptr) written_->forget_texts_beyond(texts_before_);
  }

  // At most one of these calls. A tail that is full is closed and left to be merged, unless there
  // are `most_closed` already: then it becomes a segment at once.
  void upsert(const Rows& rows, std::int64_t most_closed);
  std::int64_t remove(std::vector<Key> keys);  // returns how many had a row
  void seal_tails();
  // Puts a segment of the rows that were visible in `merged` in their place.
  void replace(const std::vector<PartView>& merged, Sealed sealed);
  // Divides all rows by other lists, or by none. Segments that are not in `division` come to it.
  void relist(std::shared_ptr<const Lists> lists, Division& division);

  // Makes the changes, and gives the state that has them. Earlier states do not change.
  State commit() noexcept;

 private:
  void open_tail();
  void close_tail(std::int64_t most_closed);
  void seal(const std::vector<PartView>& tails);
  void append(const Rows& rows, const std::vector<std::size_t>& order);
  std::int64_t find_replaced(const std::vector<Key>& keys);
  void kill(Location at);
  // The tail that takes rows, the last one; or past the end.
  std::vector<PartView>::iterator tail();
  void add(Sealed sealed);

  const Shape& shape_;
  State next_;
  std::size_t own_;
  std::vector<Location> killed_;
  Tail* written_ = nullptr;  // which rows were written to, until that is committed
  std::size_t texts_before_ = 0;
};

// The own tails that take no more rows: all but the last.
std::vector<PartView> closed_tails(const State& state, std::size_t own);

// The own parts that should become one: closed tails, a segment with many dead rows, or small ones.
std::vector<PartView> choose_merged(const Shape& shape, const State& state, std::size_t own);

// One segment of the visible rows of some parts of a state with `lists`. `check(done)` may throw.
Sealed merge(const Shape& shape, const std::shared_ptr<const Lists>& lists,
             const std::vector<PartView>& parts, const std::function<void(std::int64_t)>& check);

}  // namespace qx::collection
