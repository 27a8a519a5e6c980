// The rows of a table in memory: an index of the engine that is kept in step with the table.
#pragma once

#include <cstdint>
#include <optional>
#include <qx_runtime.hpp>
#include <unordered_set>
#include <vector>

#include "declaration.h"
#include "row_reader.h"
#include "storage.h"

namespace qx_sqlite {

// A condition on a column of numbers, or on the rowid (column -1).
struct Condition {
  enum class Test {
    kEqual,
    kNotEqual,
    kLess,
    kLessOrEqual,
    kGreater,
    kGreaterOrEqual,
    kIn,
    kNull,
    kNotNull
  };
  int column;
  Test test;
  std::vector<std::int64_t> numbers;  // ascending and distinct; one, but for kIn
  // Whether a number, or null, passes.
  bool passes(std::optional<std::int64_t> number) const;
};

// How a search finds its rows.
enum class AccessPath { kExact, kCurrent, kPartition, kFiltered, kCandidates, kIvf };
const char* name_of(AccessPath path);

class LiveRows {
 public:
  LiveRows(Storage& storage, const Declaration& declaration);

  // Makes the index that of the rows which the connection sees now.
  void catch_up();

  // A transaction that writes the table begins; some of it is undone; it ends.
  void begin();
  void undo();
  void end();

  // The k best rows that meet all conditions, by score, among equals by rowid.
  qx::Hits search(std::span<const float> query, std::int64_t k,
                  const std::vector<Condition>& conditions) const;

  // The access path that a search takes now, by the columns and tests of its conditions alone.
  AccessPath access_path(const std::vector<Condition>& conditions) const;

 private:
  void load();
  void refresh(const std::vector<std::int64_t>& rowids);
  void note_changed(std::int64_t rowid);
  qx::Hits ivf_hits(std::span<const float> query, std::int64_t k) const;
  std::vector<std::int64_t> candidates(const std::vector<Condition>& conditions) const;
  qx::Filter filter(const Condition& condition) const;

  Storage& storage_;
  const Declaration& declaration_;
  RowReader reader_;

  std::optional<qx::Index> index_;
  std::int64_t generation_ = 0;
  std::int64_t entry_ = 0;  // of the log, the last that the index has
  // Rowids that are not in the index as in its base: inserted, written over or deleted since.
  std::vector<std::int64_t> changed_;
  std::unordered_set<std::int64_t> changed_set_;
  std::int32_t ivf_lists_ = 0;

  bool writing_ = false;
  bool loaded_while_writing_ = false;
  std::int64_t entry_before_writing_ = 0;
  std::vector<std::int64_t> uncommitted_;  // refreshed in this transaction
  std::vector<std::int64_t> doubtful_;     // to be refreshed, whatever the log says
};

}  // namespace qx_sqlite
