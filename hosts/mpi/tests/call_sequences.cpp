// Random call sequences, made on one engine on rank 0 and on a sharded index of all ranks: every
// search must give the same ids and the same bits of scores.
//
//   mpirun -n RANKS qx_mpi_call_sequences SEED SEQUENCES [RANK KERNELS]
//
// All ranks draw the same call sequence. Ranks other than 0 give each call an argument that must be
// ignored, and their own range of the base to `build`.
#include <mpi.h>
#include <qx_runtime.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <iostream>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "kernels/kernels.h"
#include "sharded_index.hpp"
#include "support.hpp"

namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using qx::at;

constexpr std::int64_t kIvfKey = 5;

struct Counts {
  std::int64_t searches = 0;
  std::int64_t results = 0;
  std::int64_t ties = 0;
  std::int64_t changes = 0;
  std::int64_t differences = 0;
};

class CallSequence {
 public:
  CallSequence(std::uint64_t seed, Counts& counts)
      : random_(seed),
        counts_(counts),
        dim_(static_cast<std::int32_t>(between(1, 40))),
        small_(percent(60)),
        index_(MPI_COMM_WORLD, dim_),
        reference_(qx_index_new(static_cast<std::uint32_t>(dim_), 0)) {}
  ~CallSequence() { qx_index_free(reference_); }
  CallSequence(const CallSequence&) = delete;
  CallSequence& operator=(const CallSequence&) = delete;

  void play() {
    if (percent(15)) describe(0);  // columns that no id has
    if (percent(90)) build();
    search();
    const std::int64_t steps = between(10, 40);
    for (std::int64_t step = 0; step < steps; ++step) {
      act();
      if (percent(50)) search();
    }
    search();
    search();
  }

 private:
  // ---- Drawing ----

  std::int64_t between(std::int64_t least, std::int64_t most) {
    return std::uniform_int_distribution<std::int64_t>(least, most)(random_);
  }
  bool percent(std::int64_t chance) { return between(1, 100) <= chance; }

  // Small whole numbers make ties; others make every bit of a score count.
  Floats draw_vectors(std::int64_t rows) {
    Floats drawn(at(rows * dim_));
    std::normal_distribution<float> normal;
    for (float& number : drawn) {
      number = small_ ? static_cast<float>(between(-2, 2)) : normal(random_);
    }
    if (!drawn.empty() && percent(10)) drawn[0] = percent(50) ? 3e38f : std::nanf("");
    return drawn;
  }
  std::int64_t draw_id() {
    if (percent(2)) return percent(50) ? -1 : INT64_MIN + between(0, 3);
    if (percent(70) && !base_ids_.empty()) {
      return base_ids_[at(between(0, std::ssize(base_ids_) - 1))];
    }
    return between(0, 400);
  }
  Ids draw_ids(std::int64_t count) {
    Ids drawn(at(count));
    for (std::int64_t& id : drawn) id = draw_id();
    return drawn;
  }
  qx::Filter draw_filter() {
    const std::int64_t kind = between(0, 2);
    const std::int64_t value = percent(40) ? -1 : between(-1, 3);
    if (kind == 0) return qx::Filter::all();
    if (kind == 1) return qx::Filter::label(value);
    return qx::Filter::column(static_cast<std::int32_t>(between(-1, columns_)), value);
  }
  std::int64_t draw_k() { return percent(20) ? between(50, 1000) : between(1, 12); }

  // The arguments of the other ranks must be ignored.
  bool is_root() const { return index_.ranks().is_root(); }
  template <typename Number>
  std::vector<Number> own(const std::vector<Number>& numbers) {
    return is_root() ? numbers : std::vector<Number>();
  }

  // ---- Changes ----

  void act() {
    const std::int64_t drawn = between(1, 100);
    ++counts_.changes;
    if (drawn <= 40) return insert();
    if (drawn <= 60) return erase();
    if (drawn <= 80) return describe(between(0, 60));
    if (drawn <= 87) return attach_lists();
    if (drawn <= 93) return attach_lists_by_row();
    build();
  }

  void build() {
    const std::int64_t rows = percent(10) ? between(0, 3) : between(1, 300);
    const Floats vectors = draw_vectors(rows);
    const bool numbered = percent(30);
    Ids pool = qx::numbered(rows);
    if (!numbered) {
      const std::int64_t step = percent(50) ? 1 : 3;
      for (std::int64_t& id : pool) id = id * step + (id % 3 == 0 ? 100000 : 0);
      std::shuffle(pool.begin(), pool.end(), random_);
    }
    std::tie(first_, count_) = draw_range(rows);
    const auto part = std::span<const float>(vectors).subspan(at(first_ * dim_), at(count_ * dim_));
    const auto ids = numbered ? std::nullopt : std::optional(own_range(pool));
    if (percent(50)) {
      index_.build(part, ids);
    } else {
      const auto read = [&](std::span<float> into) {
        std::copy(part.begin(), part.end(), into.begin());
      };
      index_.build_from(count_, read, ids);
    }
    base_ids_ = pool;
    has_lists_ = false;
    qx_index_build(reference_, vectors.data(), rows, dim_, pool.data(), nullptr, nullptr, nullptr,
                   0);
    qx_index_clear_ivf(reference_);
  }

  // Of a list for each base row, the part of this rank.
  template <typename Number>
  std::span<const Number> own_range(const std::vector<Number>& all) const {
    return std::span(all).subspan(at(first_), at(count_));
  }

  // Uneven ranges, some of no rows.
  std::pair<std::int64_t, std::int64_t> draw_range(std::int64_t rows) {
    if (percent(50)) {
      return qx::rows_of_rank(index_.ranks().rank(), index_.ranks().size(), rows);
    }
    Ids cuts = {0, rows};
    for (int cut = 1; cut < index_.ranks().size(); ++cut) cuts.push_back(between(0, rows));
    std::sort(cuts.begin(), cuts.end());
    const std::size_t rank = at(index_.ranks().rank());
    return {cuts[rank], cuts[rank + 1] - cuts[rank]};
  }

  void insert() {
    const std::int64_t rows = percent(5) ? 0 : between(1, 20);
    const Ids ids = draw_ids(rows);
    const Floats vectors = draw_vectors(rows);
    index_.insert(own(vectors), own(ids));
    qx_index_insert(reference_, vectors.data(), ids.data(), static_cast<std::int32_t>(rows));
  }

  void erase() {
    const Ids ids = draw_ids(between(0, 12));
    index_.erase(own(ids));
    qx_index_delete(reference_, ids.data(), static_cast<std::int32_t>(ids.size()));
  }

  void describe(std::int64_t count) {
    const Ids ids = draw_ids(count);
    columns_ += count == 0 || percent(30) ? static_cast<std::int32_t>(between(0, 2)) : 0;
    Ids labels(ids.size());
    Ids values(ids.size() * at(columns_));
    for (std::int64_t& label : labels) label = between(-1, 3);
    for (std::int64_t& value : values) value = between(-1, 3);
    // A rank that is not asked gives a number of columns that would be wrong.
    index_.set_rowmeta(own(ids), own(labels), own(values), is_root() ? columns_ : -7);
    qx_index_set_rowmeta(reference_, ids.data(), labels.data(), values.data(), columns_,
                         static_cast<std::int32_t>(ids.size()));
  }

  void attach_lists() {
    Ids listed = base_ids_;
    std::shuffle(listed.begin(), listed.end(), random_);
    listed.resize(listed.size() - at(between(0, std::ssize(listed) / 4)));
    if (percent(30)) listed.insert(listed.begin(), 999999);  // no row has it
    const auto lists = static_cast<std::int32_t>(between(1, 20));
    std::vector<std::int32_t> offsets = {0};
    for (std::int32_t list = 1; list < lists; ++list) {
      offsets.push_back(static_cast<std::int32_t>(between(0, std::ssize(listed))));
    }
    std::sort(offsets.begin(), offsets.end());
    offsets.push_back(static_cast<std::int32_t>(listed.size()));
    const Floats centroids = draw_vectors(lists);
    index_.set_ivf(kIvfKey, 1, own(centroids), own(listed), own(offsets));
    const auto probes = static_cast<std::int32_t>(between(0, lists + 2));
    index_.set_ivf_nprobe(kIvfKey, is_root() ? probes : -3);
    attach_to_reference(probes, centroids, listed, offsets);
  }

  void attach_to_reference(std::int32_t probes, const Floats& centroids, const Ids& listed,
                           const std::vector<std::int32_t>& offsets) {
    qx_index_set_ivf(reference_, kIvfKey, static_cast<std::int32_t>(offsets.size()) - 1, probes,
                     centroids.data(), listed.data(), offsets.data(), offsets.back());
    has_lists_ = true;
  }

  // Each rank gives the lists of its own rows; the one engine gets them in the order of the base.
  void attach_lists_by_row() {
    const auto lists = static_cast<std::int32_t>(between(1, 20));
    std::vector<std::int32_t> list_of_row(base_ids_.size());
    for (std::int32_t& list : list_of_row) list = static_cast<std::int32_t>(between(-1, lists - 1));
    Ids listed;
    std::vector<std::int32_t> offsets = {0};
    for (std::int32_t list = 0; list < lists; ++list) {
      for (std::size_t row = 0; row < list_of_row.size(); ++row) {
        if (list_of_row[row] == list) listed.push_back(base_ids_[row]);
      }
      offsets.push_back(static_cast<std::int32_t>(listed.size()));
    }
    const auto probes = static_cast<std::int32_t>(between(1, lists));
    const Floats centroids = draw_vectors(lists);
    index_.set_ivf_by_row(kIvfKey, is_root() ? probes : -1, own(centroids), own_range(list_of_row));
    attach_to_reference(probes, centroids, listed, offsets);
  }

  // ---- Searches ----

  void search() {
    const std::int64_t queries = percent(30) ? between(2, 9) : 1;
    const Floats asked = draw_vectors(queries);
    const std::int64_t k = draw_k();
    compare<std::int32_t>("search_full", index_.search_full(own(asked), is_root() ? k : 1), asked,
                          k, qx_index_search_full);
    const qx::Filter filter = draw_filter();
    compare<std::uint32_t>(
        "search_filtered",
        index_.search_filtered(is_root() ? filter : qx::Filter::all(), own(asked), k), asked, k,
        qx_index_search_filtered, filter.mode(), filter.column(), filter.value());
    if (has_lists_) {
      compare<std::int32_t>("search_ivf", index_.search_ivf(kIvfKey, own(asked), k), asked, k,
                            qx_index_search_ivf, kIvfKey);
    }
    search_candidates(k);
    const std::int64_t visible = index_.visible_count();
    if (is_root()) count_difference(visible != qx_index_visible_count(reference_), "visible_count");
    const bool same = index_.snapshot() == qx_index_snapshot(reference_);
    if (is_root()) count_difference(!same, "snapshot");
  }

  void search_candidates(std::int64_t k) {
    const Floats query = draw_vectors(1);
    const Ids ids = draw_ids(between(0, 60));
    const auto count = static_cast<std::int32_t>(ids.size());
    const qx::Hits current = index_.search_mvcc(own(ids), own(query), k);
    const qx::Hits sealed = index_.scatter_topk(own(ids), own(query), k);
    if (!is_root()) return;
    compare<std::uint32_t>("search_mvcc", {current}, query, k, qx_index_search_mvcc, ids.data(),
                           count);
    compare<std::int32_t>("scatter_topk", {sealed}, query, k, qx_index_scatter_topk, ids.data(),
                          count);
  }

  // Compares the results of each query with those of the one engine, by the function for them: its
  // last arguments are a query, k and the slots.
  template <typename Count, typename Search, typename... Given>
  void compare(const char* name, const std::vector<qx::Hits>& found, const Floats& asked,
               std::int64_t k, Search by_one, Given... given) {
    if (!is_root()) return count_difference(!found.empty() && found[0].size() > 0, name);
    count_difference(std::ssize(found) * dim_ != std::ssize(asked), name);
    for (std::size_t q = 0; q < found.size(); ++q) {
      Ids ids(at(k));
      Floats scores(at(k));
      const std::int64_t slots = by_one(reference_, given..., asked.data() + q * at(dim_),
                                        static_cast<Count>(k), ids.data(), scores.data());
      const std::size_t filled =
          at(std::count_if(scores.begin(), scores.begin() + slots, qx::is_filled));
      ids.resize(filled);
      scores.resize(filled);
      const auto same_bits = [](float one, float other) {
        return std::bit_cast<std::uint32_t>(one) == std::bit_cast<std::uint32_t>(other);
      };
      const bool same = std::equal(scores.begin(), scores.end(), found[q].scores.begin(),
                                   found[q].scores.end(), same_bits);
      count_difference(found[q].ids != ids || !same, name);
      ++counts_.searches;
      counts_.results += std::ssize(ids);
      for (std::size_t i = 1; i < filled; ++i) counts_.ties += scores[i] == scores[i - 1] ? 1 : 0;
    }
  }

  void count_difference(bool differs, const char* name) {
    if (!differs) return;
    ++counts_.differences;
    std::cerr << "rank " << index_.ranks().rank() << ": " << name << " differs\n";
  }

  std::mt19937_64 random_;
  Counts& counts_;
  std::int32_t dim_;
  bool small_;
  qx::ShardedIndex index_;
  QxIndex* reference_;
  Ids base_ids_;
  std::int64_t first_ = 0;  // this rank's range of the base
  std::int64_t count_ = 0;
  std::int32_t columns_ = 0;
  bool has_lists_ = false;
};

// Plays what the command line says.
int play_all(std::span<const char* const> arguments) {
  const std::uint64_t seed = std::stoull(arguments[1]);
  const std::int64_t sequences = std::stoll(arguments[2]);
  const qx::Communicator ranks(MPI_COMM_WORLD);
  if (arguments.size() > 4 && std::stoi(arguments[3]) == ranks.rank() &&
      !qx::force_kernels(arguments[4])) {
    std::cerr << "the kernels " << arguments[4] << " do not run here\n";
    MPI_Abort(MPI_COMM_WORLD, 1);
  }
  Counts counts;
  for (std::int64_t i = 0; i < sequences && counts.differences == 0; ++i) {
    CallSequence(seed + static_cast<std::uint64_t>(i), counts).play();
    // All stop at the first difference of any.
    counts.differences = ranks.sum(counts.differences);
    if (counts.differences != 0 && ranks.is_root()) {
      std::cerr << "in the call sequence of seed " << seed + static_cast<std::uint64_t>(i) << "\n";
    }
  }
  if (ranks.is_root()) {
    std::cout << ranks.size() << " ranks, " << sequences << " call sequences, " << counts.changes
              << " changes, " << counts.searches << " searches of " << counts.results
              << " results (" << counts.ties << " ties) compared, " << counts.differences
              << " differ\n";
  }
  return counts.differences == 0 && (!ranks.is_root() || counts.searches > 0) ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  MPI_Init(&count, &arguments);
  const int result = count < 3 ? 2 : play_all({arguments, static_cast<std::size_t>(count)});
  MPI_Finalize();
  return result;
}
