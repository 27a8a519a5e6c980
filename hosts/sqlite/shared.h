// The rows of a table in memory: one collection for all connections of the process, and a view for
// a connection that sees other rows, since it has not committed, or reads a snapshot of before.
#pragma once

#include <deque>
#include <memory>
#include <mutex>

#include "rows.h"

namespace qx_sqlite {

// Rows that are those of a stamp. Without a view they are the collection's.
class Copy {
 public:
  static Copy loaded(Storage& storage, const Declaration& declaration);
  // A view of it, which changes alone.
  Copy view() const;

  std::int64_t stamp() const { return history_.back().stamp; }
  // How the table's present stamp came about: by commits after this copy's; from one that the copy
  // has passed; or it is not known.
  enum class Relation { kLater, kApart, kUnknown };
  Relation relation(Storage& storage) const;
  // Brings the rows to the table's present stamp; false if it is not known what differs. What
  // throws leaves rows that are of no use.
  bool follow(Storage& storage, const Declaration& declaration);

  CollectionPointer collection;
  ViewPointer own;  // null if the rows are the collection's

 private:
  struct Path {
    bool known = false;
    std::size_t common = 0;       // in history_
    std::vector<Commit> commits;  // after it, the latest first
  };
  Path path(Storage& storage) const;

  std::deque<Commit> history_;
};

// What the connections of a process share of a table.
struct Slot {
  std::mutex mutex;
  std::optional<Copy> copy;
};
// The slot of a table, which lives as long as a connection holds it. Databases without a file have
// each their own.
std::shared_ptr<Slot> slot_of(sqlite3* database, const std::string& schema,
                              const std::string& table);

// What one connection reads.
class Reader {
 public:
  Reader(Storage& storage, const Declaration& declaration);

  // The collection and a view of the rows that the connection sees now, until the next call.
  struct Rows {
    CollectionPointer collection;
    QxView* view;
    ViewPointer owned;
  };
  Rows rows();
  // The rows have been written in a transaction that is not over.
  void note_writing() { is_writing_ = true; }
  // The transaction is over.
  void release();
  // A statement is over, and with it its snapshot, unless a transaction goes on.
  void release_snapshot();

 private:
  void update(std::optional<Copy>& shared);
  Rows own_rows(const std::optional<Copy>& shared);

  Storage& storage_;
  const Declaration& declaration_;
  std::shared_ptr<Slot> slot_;
  std::optional<Copy> own_;
  bool is_writing_ = false;
};

}  // namespace qx_sqlite
