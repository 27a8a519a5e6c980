// Rows that are kept together: a segment, or a tail. A part only grows, and its rows only die: what
// a reader sees of it are two numbers, how many rows it had and how many of its changes had been
// made.
#pragma once

#include <atomic>
#include <bit>
#include <memory>
#include <vector>

#include "columns/column.h"
#include "columns/predicate.h"
#include "metric/metric.h"
#include "support/bits.h"
#include "support/budget.h"
#include "support/key.h"

namespace qx::collection {

// What all rows of a collection are like, and how many threads a call may use for them.
struct Shape {
  std::int32_t dim;
  bool has_texts;  // as ids
  Metric metric;
  Schema schema;
  std::shared_ptr<Budget> budget;
  int threads;
};

// When rows died. Each change that kills rows of a part is one number higher than the one before,
// and a part has no more such changes than rows: 32 bits are enough for 2^32 rows.
class Liveness {
 public:
  explicit Liveness(std::int64_t rows)
      : deaths_(new std::atomic<std::uint32_t>[at(rows)]()),
        died_(new std::atomic<std::uint64_t>[at((rows + 63) / 64)]()) {}

  // By change number `change`, 1 or more. A reader that has not seen it sees the row all the same.
  void kill(std::int64_t row, std::uint32_t change) noexcept {
    deaths_[at(row)].store(change, std::memory_order_relaxed);
    died_[at(row / 64)].fetch_or(std::uint64_t{1} << row % 64, std::memory_order_relaxed);
  }

  bool is_alive(std::int64_t row, std::uint32_t seen) const {
    return deaths_[at(row)].load(std::memory_order_relaxed) - 1 >= seen;
  }

  // A bit for each of 64 rows, or `count`, that is alive. Requires: first is a multiple of 64.
  std::uint64_t mask(std::int64_t first, std::int64_t count, std::uint32_t seen) const {
    std::uint64_t alive = first_bits(count);
    const std::uint64_t died = died_[at(first / 64)].load(std::memory_order_relaxed) & alive;
    for_each_bit(died, [&](std::int64_t i) {
      if (!is_alive(first + i, seen)) alive &= ~(std::uint64_t{1} << i);
    });
    return alive;
  }

 private:
  static std::size_t at(std::int64_t i) { return static_cast<std::size_t>(i); }

  std::unique_ptr<std::atomic<std::uint32_t>[]> deaths_;  // 0: alive
  std::unique_ptr<std::atomic<std::uint64_t>[]> died_;    // a bit for each row, of any change
};

class Part {
 public:
  explicit Part(std::int64_t capacity) : liveness(capacity) {}
  Part(const Part&) = delete;
  virtual ~Part() = default;

  virtual Key key(std::int64_t row) const = 0;
  virtual const float* vector(std::int64_t row) const = 0;
  virtual Value value(std::int64_t row, std::size_t column) const = 0;

  // The last of the first `rows` rows that has the id and is alive, or -1.
  virtual std::int64_t find(const Key& key, std::int64_t rows, std::uint32_t seen) const = 0;

  // Clears bits of rows for which a predicate is not true. Bit i is of row first + i.
  virtual void filter(const Predicate& predicate, std::int64_t first, std::int64_t count,
                      std::uint64_t* words) const = 0;

  Liveness liveness;
  Budget::Share share;
};

}  // namespace qx::collection
