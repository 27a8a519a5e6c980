// One collection over many machines: each rank of an MPI communicator holds the rows of the ids
// that it owns, and a search gives what one collection with all rows gives, in every bit.
//
// Every call is collective: all ranks make the same calls in the same order. What a call is given
// counts on rank 0 alone, but for `upsert_local`, to which each rank gives rows, and for options
// and folders; hits are on rank 0. An error is thrown on every rank alike (communicator.hpp). After
// an error in the midst of a change (memory that one rank lacks), ranks may differ: the collection
// then refuses every call.
//
// A collection's threads call no MPI: MPI_THREAD_FUNNELED suffices.
#pragma once

#include <qx_collection.h>

#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "communicator.hpp"

namespace qx::mpi {

struct Rows;

// Without padding, since ranks send lists byte by byte.
#pragma pack(push, 4)
struct Hit {
  std::int64_t id = INT64_MAX;
  float score = std::numeric_limits<float>::quiet_NaN();  // of a slot without a hit
};
#pragma pack(pop)
static_assert(sizeof(Hit) == 12);

class ShardedCollection {
 public:
  using Ids = std::span<const std::int64_t>;
  using Floats = std::span<const float>;
  using Values = std::span<const QxValues>;  // one for each column, or none: every value is NULL
  using Hits = std::vector<std::vector<Hit>>;

  // How many bytes a round of messages carries over all ranks, about.
  static constexpr std::int64_t kRoundBytes = std::int64_t{1} << 28;

  // An empty collection. Ids are numbers. Ranks must agree on dim, metric and columns, and may
  // differ in threads and memory_limit. MPI must outlive the collection.
  ShardedCollection(MPI_Comm ranks, const QxOptions& options,
                    std::int64_t round_bytes = kRoundBytes);
  // What as many ranks have saved to a folder. Of the options threads, memory_limit and manual
  // count.
  static ShardedCollection load(MPI_Comm ranks, const std::string& folder,
                                const QxOptions& options = {},
                                std::int64_t round_bytes = kRoundBytes);
  ShardedCollection(const ShardedCollection&) = delete;
  ShardedCollection& operator=(const ShardedCollection&) = delete;

  const Communicator& ranks() const { return ranks_; }
  const QxOptions& schema() const { return schema_; }  // dim, metric and columns
  std::int64_t count() const;                          // of rows, on all ranks
  std::int64_t bytes() const;                          // of all rows, on all ranks

  // Adds or replaces rows. Of an id that repeats in a call of `upsert`, or in what one rank gives
  // to `upsert_local`, the last row counts; of one that two ranks give, either may.
  void upsert(Ids ids, Floats vectors, Values values = {});
  void upsert_local(Ids ids, Floats vectors, Values values = {});
  std::int64_t remove(Ids ids);  // gives how many rows there were
  void compact();

  // The k best rows for each query that pass the filter, which may be empty, and are among the ids.
  Hits search(Floats queries, std::int64_t k, const std::string& filter = {},
              std::optional<Ids> among = std::nullopt) const;

  // A file for each rank, in its folder, and on rank 0 a manifest, which makes them count. The
  // folders may be one. What was saved there before stays until all is written.
  void save(const std::string& folder) const;

 private:
  struct Freed {
    void operator()(QxCollection* collection) const { qx_collection_free(collection); }
  };
  struct Round;

  // Of the files, which have `rows` rows, or an empty one if `file` is null.
  ShardedCollection(MPI_Comm ranks, const QxOptions& options, const char* file, std::int64_t rows,
                    std::int64_t round_bytes);
  static void call(std::int32_t status);  // throws what a call to the collection says
  void check_whole() const;
  int owner_of(std::int64_t id) const;
  std::size_t send_rows(const Rows& rows, std::size_t next, std::vector<std::byte>& received) const;
  template <typename Step>
  void change_own(const Step& step);
  Round ask(Floats queries, std::size_t done, std::int64_t k, const std::string& filter,
            std::optional<Ids> among, std::vector<std::byte>& payload) const;
  void search_own(const Round& round, const std::byte* given, std::vector<Hit>& lists) const;

  Communicator ranks_;
  std::int64_t round_bytes_;
  std::unique_ptr<QxCollection, Freed> own_;
  QxOptions schema_ = {};
  std::int64_t rows_;  // on all ranks
  bool broken_ = false;
};

}  // namespace qx::mpi
