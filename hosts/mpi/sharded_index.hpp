// One index over many machines: each rank of an MPI communicator holds a part of the rows in
// engines of its own, and a search gives what one engine with all rows would give, in every bit.
//
// Every call is collective: all ranks make the same calls in the same order. What a call is given
// counts on rank 0 alone, but for `build`, to which each rank gives its own rows; results are on
// rank 0, and empty elsewhere. An error is thrown on every rank alike. After an error in the midst
// of a change (memory that one rank lacks), ranks may differ: the index then refuses every call.
//
// Two engines to a rank. The base engine has the rank's rows under their local numbers, so that its
// table of ids is small whatever the ids are. The delta engine has the rows that were inserted,
// under their own ids, on the one rank that owns the id: the owner is a hash of the id. An id that
// is inserted or deleted has its base row deleted on its rank, for ever, since a later insert
// writes a delta row.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <qx_runtime.hpp>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "communicator.hpp"
#include "top_list.hpp"

namespace qx {

// The first row of a rank and the number of its rows, when `rows` are dealt out evenly.
std::pair<std::int64_t, std::int64_t> rows_of_rank(int rank, int ranks, std::int64_t rows);

class ShardedIndex {
 public:
  using Ids = std::span<const std::int64_t>;
  using Floats = std::span<const float>;

  // The communicator is duplicated. MPI must outlive the index.
  ShardedIndex(MPI_Comm ranks, std::int32_t dim);
  ShardedIndex(const ShardedIndex&) = delete;
  ShardedIndex& operator=(const ShardedIndex&) = delete;

  const Communicator& ranks() const { return ranks_; }
  std::int32_t dim() const { return dim_; }
  std::int64_t size() const { return base_.total_rows; }  // of the base, on all ranks
  std::uint64_t snapshot() const { return snapshot_; }
  std::int64_t visible_count() const;

  // Seals a base of the rows that each rank gives, or replaces it. Ids are distinct, from 0 to
  // 2^40 - 1; without them, a row's id is its number. Delta, tombstones and metadata stay; IVF
  // structures do not.
  void build(Floats vectors, std::optional<Ids> ids = std::nullopt);
  // The same of vectors that `read` writes into the span that it is given: a rank's rows, all at
  // once. The ranks of one machine take turns, so that one of them at a time holds its rows twice.
  using Read = std::function<void(std::span<float>)>;
  void build_from(std::int64_t rows, const Read& read, std::optional<Ids> ids = std::nullopt);

  void insert(Floats vectors, Ids ids);
  void erase(Ids ids);
  void set_rowmeta(Ids ids, Ids labels, Ids values, std::int32_t ncols);

  // As in the engine, but that a base row may stand in the lists once.
  void set_ivf(std::int64_t key, std::int32_t nprobe, Floats centroids, Ids list_ids,
               std::span<const std::int32_t> list_offsets);
  // The same for lists that no rank needs to hold: rank 0 gives the centroids, and each rank the
  // list of each of its rows, or -1. A list has its rows in the order of the base.
  void set_ivf_by_row(std::int64_t key, std::int32_t nprobe, Floats centroids,
                      std::span<const std::int32_t> list_of_row);
  void set_ivf_nprobe(std::int64_t key, std::int32_t nprobe);
  void clear_ivf();

  // The k best rows for each query; the queries are stored one after the other.
  std::vector<Hits> search_full(Floats queries, std::int64_t k);
  std::vector<Hits> search_filtered(Filter filter, Floats queries, std::int64_t k);
  std::vector<Hits> search_ivf(std::int64_t key, Floats queries, std::int64_t k);
  Hits search_mvcc(Ids candidates, Floats query, std::int64_t k);
  Hits scatter_topk(Ids candidates, Floats query, std::int64_t k);

 private:
  using Numbers = std::vector<std::int64_t>;
  using Entries = std::span<Entry>;

  // An id that this rank owns.
  struct Owned {
    std::int64_t sequence = -1;  // when it was first inserted, or -1
    bool deleted = false;
    bool described = false;  // has had metadata
  };
  // This rank's part of the base. Its engine has the local rows under their numbers.
  struct Base {
    std::optional<Index> engine;
    std::int64_t rows = 0;
    std::int64_t first_row = 0;
    std::int64_t total_rows = 0;
    Numbers ids;         // of the local rows; empty where ids are row numbers
    Numbers rows_by_id;  // sorted by ids
  };
  // The part of an IVF structure on this rank: all centroids, and of each list the rows of this
  // rank, in the list's order; of each row its list and its place in the list of all ranks.
  struct Ivf {
    std::int32_t nprobe = 0;
    std::int32_t nlist = 0;
    std::int64_t n_ids = 0;  // on all ranks
    std::optional<Index> centroids;
    Numbers rows;
    std::vector<std::size_t> begins;  // nlist + 1, into `rows`
    std::vector<std::int32_t> list_of_row;
    Numbers place_of_row;
  };
  struct IvfShape {
    std::int64_t key;
    std::int32_t nprobe;
    std::int32_t nlist;
  };
  // What rank 0 was asked for.
  struct Asked {
    std::int64_t queries = 0;
    std::int64_t k = 0;
    Filter filter = Filter::all();
    std::int64_t key = 0;
  };
  // What the search buffers of every rank hold at least: k results, entries of lists, queries.
  struct Capacity {
    std::int64_t k = 0;
    std::int64_t entries = 0;
    std::int64_t queries = 0;
  };
  // Of a list of ids, those that an engine of this rank has, as it knows them, with their places.
  struct Part {
    Numbers ids;
    Numbers places;
  };

  int owner_of(std::int64_t id) const;
  std::vector<int> counts_by_owner(Ids ids) const;
  std::int64_t find_row(std::int64_t id) const;
  std::int64_t id_of_row(std::int64_t row) const;
  Part base_part(Ids ids) const;
  Part delta_part(Ids ids) const;
  std::int64_t count_of(const char* what, Floats vectors) const;
  void check_whole() const;
  // A step that changes ranks: where it fails on some rank, it may have been done on others.
  template <typename Step>
  void change(Step&& step) {
    try {
      step();
    } catch (...) {
      broken_ = true;
      throw;
    }
  }

  void check_ids(std::int64_t rows, const std::optional<Ids>& ids) const;
  void check_distinct(Ids ids) const;
  void route(Ids ids, Numbers& received) const;
  Base prepare(std::int64_t rows, const std::optional<Ids>& ids) const;
  void replace_base(Base base);
  void replay_changes_of(int owner);
  std::vector<float> scatter_vectors(Ids ids, Floats vectors) const;
  void insert_part(Floats vectors, Ids ids);
  void hide(Ids ids);
  static void describe(Index& engine, const Part& part, Ids labels, Ids values, std::int32_t ncols);

  IvfShape check_lists(const IvfShape& asked, Floats centroids) const;
  template <typename Place>
  void set_lists(const IvfShape& shape, Floats centroids, Place place);
  void sort_rows(Ivf& ivf) const;

  template <typename Most>
  Asked ask(Asked asked, Floats queries, Most most, std::vector<Hits>& found);
  void reserve_buffers(std::int64_t k, std::int64_t queries);
  Floats share_queries(const Asked& asked, Floats queries, std::int64_t first, std::int64_t count);
  template <bool can_fail, typename Local>
  void run(const Asked& asked, Floats queries, std::vector<Hits>& found, Local local);
  template <bool can_fail, typename Most, typename Local>
  std::vector<Hits> search(Asked asked, Floats queries, Most most, Local local);
  template <typename Local>
  Hits search_candidates(Ids candidates, Floats query, std::int64_t k, Local local);
  void search_current(const Filter& filter, Floats query, Entries list);
  void search_lists(const Ivf& ivf, Floats query, Entries list);
  std::span<std::int64_t> ids_for(Entries list) { return std::span(slot_ids_).first(list.size()); }
  std::span<float> scores_for(Entries list) { return std::span(slot_scores_).first(list.size()); }
  // Makes a list of the first slots: entry_of(id) gives the entries, but for their scores.
  template <typename EntryOf>
  void take(Entries list, std::size_t slots, EntryOf entry_of) const {
    for (std::size_t i = 0; i < list.size(); ++i) {
      list[i] = Entry();
      if (i >= slots || !is_filled(slot_scores_[i])) continue;
      list[i] = entry_of(slot_ids_[i]);
      list[i].score = slot_scores_[i];
    }
  }
  void take_by_place(Entries list, std::size_t slots, const Part& part, bool base) const;

  Communicator ranks_;
  std::int32_t dim_;
  bool broken_ = false;
  Base base_;
  std::optional<Index> delta_;
  std::unordered_map<std::int64_t, Owned> owned_;
  std::int64_t next_sequence_ = 0;
  std::uint64_t snapshot_ = 0;
  std::int32_t columns_ = 0;
  std::map<std::int64_t, Ivf> ivfs_;
  // The buffers of searches are kept, so that most searches allocate nothing and cannot fail.
  Capacity capacity_;
  std::vector<std::byte> question_;
  std::vector<float> queries_;
  std::vector<Entry> lists_;
  std::vector<Entry> other_list_;
  Numbers slot_ids_;
  std::vector<float> slot_scores_;
};

}  // namespace qx
