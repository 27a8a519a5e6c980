// Random call sequences, made on one engine on rank 0 and on a sharded index of all ranks: every
// search must give the same ids and the same bits of scores.
//
//   mpirun -n RANKS qx_mpi_call_sequences --seed S --sequences N [--force RANK KERNELS]
//
// All ranks draw the same call sequence. Ranks other than 0 give each call an argument that must be
// ignored, and their own range of the base to `build`.
#include <mpi.h>
#include <qx_runtime.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kernels/kernels.h"
#include "sharded_index.hpp"

namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;

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
    Floats drawn(static_cast<std::size_t>(rows * dim_));
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
      return base_ids_[static_cast<std::size_t>(between(0, std::ssize(base_ids_) - 1))];
    }
    return between(0, 400);
  }
  Ids draw_ids(std::int64_t count) {
    Ids drawn(static_cast<std::size_t>(count));
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
    Ids pool(static_cast<std::size_t>(2 * rows + 1));
    for (std::size_t i = 0; i < pool.size(); ++i) {
      pool[i] = static_cast<std::int64_t>(i) * (percent(50) ? 1 : 3) + (i % 3 == 0 ? 100000 : 0);
    }
    std::sort(pool.begin(), pool.end());
    pool.erase(std::unique(pool.begin(), pool.end()), pool.end());
    std::shuffle(pool.begin(), pool.end(), random_);
    pool.resize(std::min(pool.size(), static_cast<std::size_t>(rows)));
    while (std::ssize(pool) < rows) pool.push_back(200000 + std::ssize(pool));
    if (numbered) std::iota(pool.begin(), pool.end(), 0);
    const auto [first, count] = draw_range(rows);
    from_ = static_cast<std::size_t>(first);
    size_ = static_cast<std::size_t>(count);
    const std::span<const float> part = std::span(vectors).subspan(
        from_ * static_cast<std::size_t>(dim_), size_ * static_cast<std::size_t>(dim_));
    const auto ids = numbered
                         ? std::nullopt
                         : std::optional(std::span<const std::int64_t>(pool).subspan(from_, size_));
    if (percent(50)) {
      index_.build(part, ids);
    } else {
      index_.build_from(
          count, [&](std::span<float> into) { std::copy(part.begin(), part.end(), into.begin()); },
          ids);
    }
    base_ids_ = pool;
    has_lists_ = false;
    qx_index_build(reference_, vectors.data(), rows, dim_, pool.data(), nullptr, nullptr, nullptr,
                   0);
    qx_index_clear_ivf(reference_);
  }

  // Uneven ranges, some of no rows.
  std::pair<std::int64_t, std::int64_t> draw_range(std::int64_t rows) {
    if (percent(50)) {
      return qx::rows_of_rank(index_.ranks().rank(), index_.ranks().size(), rows);
    }
    Ids cuts = {0, rows};
    for (int cut = 1; cut < index_.ranks().size(); ++cut) cuts.push_back(between(0, rows));
    std::sort(cuts.begin(), cuts.end());
    const auto rank = static_cast<std::size_t>(index_.ranks().rank());
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
    Ids values(ids.size() * static_cast<std::size_t>(columns_));
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
    listed.resize(listed.size() - static_cast<std::size_t>(between(0, std::ssize(listed) / 4)));
    if (percent(30)) listed.insert(listed.begin(), 999999);  // no row has it
    const auto lists = static_cast<std::int32_t>(between(1, 20));
    std::vector<std::int32_t> offsets = {0};
    for (std::int32_t list = 1; list < lists; ++list) {
      offsets.push_back(static_cast<std::int32_t>(between(0, std::ssize(listed))));
    }
    std::sort(offsets.begin(), offsets.end());
    offsets.push_back(static_cast<std::int32_t>(listed.size()));
    const auto probes = static_cast<std::int32_t>(between(0, lists + 2));
    const Floats centroids = draw_vectors(lists);
    index_.set_ivf(kIvfKey, 1, own(centroids), own(listed), own(offsets));
    index_.set_ivf_nprobe(kIvfKey, is_root() ? probes : -3);
    qx_index_set_ivf(reference_, kIvfKey, lists, probes, centroids.data(), listed.data(),
                     offsets.data(), static_cast<std::int32_t>(listed.size()));
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
    index_.set_ivf_by_row(kIvfKey, is_root() ? probes : -1, own(centroids),
                          std::span<const std::int32_t>(list_of_row).subspan(from_, size_));
    qx_index_set_ivf(reference_, kIvfKey, lists, probes, centroids.data(), listed.data(),
                     offsets.data(), static_cast<std::int32_t>(listed.size()));
    has_lists_ = true;
  }

  // ---- Searches ----

  void search() {
    const std::int64_t queries = percent(30) ? between(2, 9) : 1;
    const Floats asked = draw_vectors(queries);
    const std::int64_t k = draw_k();
    search_exact(asked, queries, k);
    search_current(asked, queries, k);
    if (has_lists_) search_lists(asked, queries, k);
    search_candidates(k);
    const std::int64_t visible = index_.visible_count();
    if (is_root()) count_difference(visible != qx_index_visible_count(reference_), "visible_count");
    const bool same = index_.snapshot() == qx_index_snapshot(reference_);
    if (is_root()) count_difference(!same, "snapshot");
  }

  void search_exact(const Floats& asked, std::int64_t queries, std::int64_t k) {
    const auto found = index_.search_full(own(asked), is_root() ? k : 1);
    compare_all(
        "search_full", found, queries, k, [&](std::int64_t q, std::int64_t* ids, float* scores) {
          return std::int64_t{qx_index_search_full(reference_, asked.data() + q * dim_,
                                                   static_cast<std::int32_t>(k), ids, scores)};
        });
  }

  void search_current(const Floats& asked, std::int64_t queries, std::int64_t k) {
    const qx::Filter filter = draw_filter();
    const auto found =
        index_.search_filtered(is_root() ? filter : qx::Filter::all(), own(asked), k);
    compare_all("search_filtered", found, queries, k,
                [&](std::int64_t q, std::int64_t* ids, float* scores) {
                  return qx_index_search_filtered(reference_, filter.mode(), filter.column(),
                                                  filter.value(), asked.data() + q * dim_,
                                                  static_cast<std::uint32_t>(k), ids, scores);
                });
  }

  void search_lists(const Floats& asked, std::int64_t queries, std::int64_t k) {
    const auto found = index_.search_ivf(kIvfKey, own(asked), k);
    compare_all(
        "search_ivf", found, queries, k, [&](std::int64_t q, std::int64_t* ids, float* scores) {
          return std::int64_t{qx_index_search_ivf(reference_, kIvfKey, asked.data() + q * dim_,
                                                  static_cast<std::int32_t>(k), ids, scores)};
        });
  }

  void search_candidates(std::int64_t k) {
    const Floats query = draw_vectors(1);
    const Ids ids = draw_ids(between(0, 60));
    const auto count = static_cast<std::int32_t>(ids.size());
    const qx::Hits current = index_.search_mvcc(own(ids), own(query), k);
    const qx::Hits sealed = index_.scatter_topk(own(ids), own(query), k);
    if (!is_root()) return;
    compare_all("search_mvcc", {current}, 1, k,
                [&](std::int64_t, std::int64_t* slots, float* scores) {
                  return qx_index_search_mvcc(reference_, ids.data(), count, query.data(),
                                              static_cast<std::uint32_t>(k), slots, scores);
                });
    compare_all(
        "scatter_topk", {sealed}, 1, k, [&](std::int64_t, std::int64_t* slots, float* scores) {
          return std::int64_t{qx_index_scatter_topk(reference_, ids.data(), count, query.data(),
                                                    static_cast<std::int32_t>(k), slots, scores)};
        });
  }

  // Compares the results of each query with those of the one engine, which fills slots.
  template <typename Search>
  void compare_all(const char* name, const std::vector<qx::Hits>& found, std::int64_t queries,
                   std::int64_t k, Search reference) {
    if (!is_root()) return count_difference(!found.empty() && found[0].size() > 0, name);
    count_difference(std::ssize(found) != queries, name);
    for (std::int64_t q = 0; q < std::min(queries, std::ssize(found)); ++q) {
      Ids ids(static_cast<std::size_t>(k));
      Floats scores(static_cast<std::size_t>(k));
      const std::int64_t slots = reference(q, ids.data(), scores.data());
      const auto filled = static_cast<std::size_t>(
          std::count_if(scores.begin(), scores.begin() + slots, qx::is_filled));
      ids.resize(filled);
      scores.resize(filled);
      const qx::Hits& hits = found[static_cast<std::size_t>(q)];
      const bool same_bits = std::equal(scores.begin(), scores.end(), hits.scores.begin(),
                                        hits.scores.end(), [](float one, float other) {
                                          return std::bit_cast<std::uint32_t>(one) ==
                                                 std::bit_cast<std::uint32_t>(other);
                                        });
      count_difference(hits.ids != ids || !same_bits, name);
      ++counts_.searches;
      counts_.results += static_cast<std::int64_t>(filled);
      for (std::size_t i = 1; i < filled; ++i) counts_.ties += scores[i] == scores[i - 1] ? 1 : 0;
    }
  }

  void count_difference(bool differs, const char* name) {
    if (!differs) return;
    ++counts_.differences;
    std::fprintf(stderr, "rank %d: %s differs\n", index_.ranks().rank(), name);
  }

  std::mt19937_64 random_;
  Counts& counts_;
  std::int32_t dim_;
  bool small_;
  qx::ShardedIndex index_;
  QxIndex* reference_;
  Ids base_ids_;
  std::size_t from_ = 0;  // this rank's range of the base
  std::size_t size_ = 0;
  std::int32_t columns_ = 0;
  bool has_lists_ = false;
};

struct Settings {
  std::uint64_t seed = 1;
  std::int64_t sequences = 20;
  int forced_rank = -1;
  std::string kernels;
};

Settings read_settings(int count, char** arguments) {
  Settings settings;
  for (int i = 1; i + 1 < count; i += 2) {
    const std::string name = arguments[i];
    if (name == "--seed") settings.seed = std::strtoull(arguments[i + 1], nullptr, 10);
    if (name == "--sequences") settings.sequences = std::strtoll(arguments[i + 1], nullptr, 10);
    if (name == "--force" && i + 2 < count) {
      settings.forced_rank = std::atoi(arguments[i + 1]);
      settings.kernels = arguments[++i + 1];
    }
  }
  return settings;
}

int play_all(const Settings& settings) {
  int rank = 0;
  int ranks = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &ranks);
  if (rank == settings.forced_rank && !qx::force_kernels(settings.kernels.c_str())) {
    std::fprintf(stderr, "the kernels %s do not run here\n", settings.kernels.c_str());
    MPI_Abort(MPI_COMM_WORLD, 1);
  }
  Counts counts;
  for (std::int64_t sequence = 0; sequence < settings.sequences && counts.differences == 0;
       ++sequence) {
    CallSequence(settings.seed + static_cast<std::uint64_t>(sequence), counts).play();
    // All stop at the first difference of any.
    MPI_Allreduce(MPI_IN_PLACE, &counts.differences, 1, MPI_INT64_T, MPI_SUM, MPI_COMM_WORLD);
    if (counts.differences != 0 && rank == 0) {
      std::fprintf(stderr, "in the call sequence of seed %llu\n",
                   static_cast<unsigned long long>(settings.seed) +
                       static_cast<unsigned long long>(sequence));
    }
  }
  if (rank == 0) {
    std::printf(
        "%d ranks, %lld call sequences, %lld changes, %lld searches of %lld results (%lld ties) "
        "compared, %lld differ\n",
        ranks, static_cast<long long>(settings.sequences), static_cast<long long>(counts.changes),
        static_cast<long long>(counts.searches), static_cast<long long>(counts.results),
        static_cast<long long>(counts.ties), static_cast<long long>(counts.differences));
  }
  return counts.differences == 0 && (rank != 0 || counts.searches > 0) ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  MPI_Init(&count, &arguments);
  const int result = play_all(read_settings(count, arguments));
  MPI_Finalize();
  return result;
}
