// The data that contestants share: random numbers, orders of ids, vectors, indexes. The same seed
// gives the same data with every compiler.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qx_runtime.h"

namespace bench {

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}

  // 64 random bits, by the splitmix64 recurrence.
  std::uint64_t bits() {
    std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15u;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
  }

  // A number from 0 to limit - 1.
  std::int64_t below(std::int64_t limit) {
    return static_cast<std::int64_t>(bits() % static_cast<std::uint64_t>(limit));
  }

  // A number from -1 to 1.
  float unit() { return static_cast<float>(static_cast<std::int64_t>(bits()) >> 40) * 0x1p-23f; }

  template <typename T>
  void shuffle(std::vector<T>& values) {
    for (std::size_t i = values.size(); i > 1; --i) {
      std::swap(values[i - 1], values[static_cast<std::size_t>(below(static_cast<int64_t>(i)))]);
    }
  }

 private:
  std::uint64_t state_;
};

using Ids = std::vector<std::int64_t>;

struct NamedIds {
  const char* name;
  Ids ids;
};

inline std::int64_t count_of(const Ids& ids) { return static_cast<std::int64_t>(ids.size()); }
inline std::int32_t count32_of(const Ids& ids) { return static_cast<std::int32_t>(ids.size()); }

Ids ascending_ids(std::int64_t n);                                   // 0 to n - 1 in order
Ids permuted_ids(std::int64_t n, Random& random);                    // 0 to n - 1 shuffled
Ids sparse_ids(std::int64_t n, std::int64_t limit, Random& random);  // n distinct ones of limit

// Hands ids over as a host might: call(first, count) for each thousand of them.
template <typename Call>
void in_calls(const Ids& ids, Call&& call) {
  constexpr std::int64_t kCall = 1000;
  for (std::int64_t first = 0; first < count_of(ids); first += kCall) {
    call(first, static_cast<std::int32_t>(std::min(kCall, count_of(ids) - first)));
  }
}

// Floats whose first one starts a cache line, so that a peer that uses wide loads loses nothing.
class Floats {
 public:
  explicit Floats(std::int64_t count);
  const float* data() const { return values_.get(); }
  float* data() { return values_.get(); }
  std::int64_t count() const { return count_; }

 private:
  struct Free {
    void operator()(float* values) const { std::free(values); }
  };
  std::int64_t count_;
  std::unique_ptr<float, Free> values_;
};

Floats random_floats(std::int64_t count, Random& random);

// Row-major vectors, which outlive what reads them.
struct Matrix {
  const float* values;
  std::int64_t rows;
  std::int64_t dim;
};

// Takes the free pages that are scattered in physical memory and keeps them to the end of the
// process. The first allocations would get them, and be slower to read by a third than later ones;
// now no contestant does.
void hold_scattered_pages();

// Several queries that contestants take in turn: with a single one, a branch predictor learns by
// heart which rows of a small set enter the result. A copy has a turn of its own.
class Queries {
 public:
  Queries(std::int64_t dim, Random& random) : Queries(dim, random_floats(kCount * dim, random)) {}
  Queries(std::int64_t dim, Floats values)
      : dim_(dim), values_(std::make_shared<Floats>(std::move(values))) {}
  const float* next() { return values_->data() + dim_ * turn_++ % values_->count(); }
  const float* first() const { return values_->data(); }

 private:
  static constexpr std::int64_t kCount = 8;
  std::int64_t dim_;
  std::shared_ptr<const Floats> values_;
  std::int64_t turn_ = 0;
};

struct FreeIndex {
  void operator()(QxIndex* index) const { qx_index_free(index); }
};
using Index = std::unique_ptr<QxIndex, FreeIndex>;

Index empty_index(std::int64_t dim);
Index built_index(const float* vectors, const Ids& ids, std::int64_t dim);

// The vectors of the sealed base, row-major: the very bytes that the engine reads, and the only
// look inside an index. How fast memory can be read depends on which pages the system happened to
// give, by more than a third between two blocks of one process. So limits, and peers that hold no
// copy of their own, read the engine's block and not an equal one.
const float* base_vectors(const Index& index);

// What searches ask for where nothing else is said.
inline constexpr std::int32_t kResults = 10;

// The result slots of a host, and the searches that fill them.
struct Slots {
  explicit Slots(std::int64_t slots = kResults)
      : k(static_cast<std::int32_t>(slots)),
        ids(static_cast<std::size_t>(k)),
        scores(static_cast<std::size_t>(k)) {}

  std::int32_t search_full(const QxIndex* index, const float* query) {
    return qx_index_search_full(index, query, k, ids.data(), scores.data());
  }
  std::int64_t search_mvcc(const QxIndex* index, const std::int64_t* listed, std::int64_t count,
                           const float* query) {
    return qx_index_search_mvcc(index, listed, static_cast<std::int32_t>(count), query,
                                static_cast<std::uint32_t>(k), ids.data(), scores.data());
  }

  std::int32_t k;
  Ids ids;
  std::vector<float> scores;
};

}  // namespace bench
