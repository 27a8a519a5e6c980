// Rows as the engine takes them, read from the table that stores them.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <qx_runtime.hpp>
#include <vector>

#include "declaration.h"
#include "storage.h"
#include "vectors.h"

namespace qx_sqlite {

// Where the numbers of the declared columns stand in the engine's metadata.
struct NumberSlots {
  static constexpr int kLabel = -1;
  static constexpr int kNone = -2;

  explicit NumberSlots(const Declaration& declaration);

  std::vector<int> of_column;  // of each declared column: the engine's, kLabel or kNone
  std::int32_t columns = 0;    // of the engine
};

// The engine marks a missing number by -1, so numbers below 0 are stored one lower. The least
// number has no place there.
constexpr std::int64_t kMissing = -1;
constexpr std::int64_t kLeastNumber = std::numeric_limits<std::int64_t>::min();
inline std::int64_t stored(std::int64_t number) { return number < 0 ? number - 1 : number; }
inline std::optional<std::int64_t> number_of(std::int64_t value) {
  if (value == kMissing) return std::nullopt;
  return value < 0 ? value + 1 : value;
}

struct Rows {
  std::vector<std::int64_t> ids;
  Floats vectors;
  std::vector<std::int64_t> labels;
  std::vector<std::int64_t> values;
  std::vector<std::optional<std::int64_t>> keys;  // of the partition
};

// All rows: those with rowids below a limit in the order of their keys, those without one first,
// and the others apart, since the engine's table of a base has a place for every smaller rowid.
struct AllRows {
  Rows base;
  std::vector<qx::Partition> partitions;
  Rows sparse;
};

class RowReader {
 public:
  explicit RowReader(const Declaration& declaration)
      : declaration_(declaration), slots_(declaration) {}

  const NumberSlots& slots() const { return slots_; }

  // Adds the row on which a statement of the storage stands.
  void read(const Statement& row, Rows* rows) const;
  AllRows read_all(Storage& storage) const;

 private:
  void read_vector(const Statement& row, int at, std::int64_t rowid, Rows* rows) const;
  template <typename Work>
  void each_array(Rows* rows, Rows* other, Work work) const;
  Rows take_sparse(Rows* rows) const;
  void sort_by_key(Rows* rows) const;

  const Declaration& declaration_;
  NumberSlots slots_;
};

}  // namespace qx_sqlite
