// The indexes of a database, which the worker fills and connections search.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "program/rows.h"

namespace qx::postgresql {

struct Index {
  std::mutex mutex;  // of what follows, but the counts
  bool ready = false;
  std::string error;                         // why the rows were given up
  std::vector<std::vector<char>> snapshots;  // each row is of one of these
  Collection rows;
  std::atomic<std::int64_t> expected = 0, loaded = 0, loaded_bytes = 0;  // before they are ready
  std::atomic<std::int64_t> changes = 0, searches = 0, microseconds = 0;
};

class Indexes {
 public:
  std::shared_ptr<Index> find(std::uint32_t table);
  void put(std::uint32_t table, std::shared_ptr<Index> index);
  void drop(std::uint32_t table);
  void report(Writer& answer);
  std::int64_t bytes();

 private:
  std::mutex mutex_;
  std::map<std::uint32_t, std::shared_ptr<Index>> all_;
};

// Both return when the other end closes.
void serve_worker(int socket, Indexes& indexes);
void serve_back_end(int socket, Indexes& indexes);

}  // namespace qx::postgresql
