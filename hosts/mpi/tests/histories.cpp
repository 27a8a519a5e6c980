// Random histories of a collection over all ranks, and of one collection with all rows on rank 0:
// every search must give the same ids, order and bits of scores.
//
//   mpirun -n RANKS qx_mpi_histories SEED HISTORIES [RANK KERNELS]
//
// All ranks draw the same history. Ranks other than 0 give calls arguments that must be ignored.
#include <bit>
#include <filesystem>
#include <iostream>
#include <random>

#include "kernels/kernels.h"
#include "sharded_collection.hpp"

namespace qx::mpi {
namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;

constexpr QxColumn kColumns[] = {
    {"label", QX_INTEGER}, {"weight", QX_REAL}, {"done", QX_BOOLEAN}, {"lang", QX_TEXT}};
constexpr QxText kTexts[] = {{"de", 2}, {"fr", 2}, {"", 0}, {"a text longer than others", 25}};
// The last is refused.
constexpr const char* kFilters[] = {"label = 2",
                                    "lang IN ('de', '')",
                                    "done IS NULL",
                                    "done",
                                    "weight BETWEEN 0.5 AND 1.25 OR NOT label > 0",
                                    "lang <> 'fr' AND weight IS NOT NULL",
                                    "label = = 2"};

struct Counts {
  std::int64_t changes, searches, hits, ties, refused, differences;
};

class History {
 public:
  History(std::uint64_t seed, const std::string& folder, Counts& counts)
      : random_(seed), counts_(counts), folder_(folder) {
    QxOptions options = {};
    options.dim = static_cast<std::int32_t>(percent(20) ? between(300, 600) : between(1, 40));
    options.columns = kColumns;
    options.n_columns = 4;
    options.metric = static_cast<std::int32_t>(between(QX_INNER_PRODUCT, QX_EUCLIDEAN));
    small_ = percent(60);
    round_bytes_ = percent(50) ? between(1, 20'000) : ShardedCollection::kRoundBytes;
    sharded_ = std::make_unique<ShardedCollection>(MPI_COMM_WORLD, options, round_bytes_);
    if (is_root()) qx_collection_new(&options, &one_);
  }
  ~History() { qx_collection_free(one_); }
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  void play() {
    for (std::int64_t step = between(8, 25); step > 0; --step) {
      act();
      for (std::int64_t searches = between(0, 2); searches > 0; --searches) search();
      ++counts_.changes;
    }
    search();
  }

 private:
  // ---- Drawing ----

  std::int64_t between(std::int64_t least, std::int64_t most) {
    return std::uniform_int_distribution<std::int64_t>(least, most)(random_);
  }
  bool percent(std::int64_t chance) { return between(1, 100) <= chance; }
  bool is_root() const { return sharded_->ranks().is_root(); }
  template <typename Draw>
  auto draw(std::int64_t count, Draw one) {
    std::vector<decltype(one())> drawn(at(count));
    std::ranges::generate(drawn, one);
    return drawn;
  }

  // Small whole numbers make ties; others make every bit of a score count.
  Floats draw_vectors(std::int64_t rows) {
    std::normal_distribution<float> normal;
    Floats drawn = draw(rows * sharded_->schema().dim, [&] {
      return small_ ? static_cast<float>(between(-2, 2)) : normal(random_);
    });
    if (!drawn.empty() && percent(10)) drawn[0] = percent(50) ? 3e38f : -3e38f;
    return drawn;
  }
  Ids draw_ids(std::int64_t count) {
    return draw(count, [&] { return percent(3) ? INT64_MIN + between(0, 3) : between(-200, 400); });
  }

  // ---- Changes ----

  void act() {
    const std::int64_t drawn = between(1, 100);
    if (drawn <= 35) return upsert();
    if (drawn <= 60) return upsert_local();
    if (drawn <= 80) return remove();
    if (drawn <= 90) return compact();
    sharded_->save(folder_);
    sharded_.reset(new auto(ShardedCollection::load(MPI_COMM_WORLD, folder_, {}, round_bytes_)));
  }

  // Draws vectors and values of rows, gives them to one collection, and rows from `first` on to all
  // ranks, by give(ids, vectors, values).
  template <typename Give>
  void upsert_both(const Ids& ids, std::size_t first, std::size_t count, Give give) {
    const std::int64_t n = std::ssize(ids);
    const Floats vectors = draw_vectors(n);
    const auto integers = draw(n, [&] { return percent(5) ? INT64_MIN : between(-1, 3); });
    const auto reals = draw(n, [&] { return static_cast<double>(between(0, 8)) / 4; });
    const auto booleans = draw(n, [&] { return static_cast<std::uint8_t>(between(0, 1)); });
    const auto texts = draw(n, [&] { return kTexts[between(0, 3)]; });
    const auto nulls = draw(n, [&] { return static_cast<std::uint8_t>(percent(20) ? 1 : 0); });
    const auto values_from = [&](std::size_t row) {  // of which a column is NULL everywhere
      const QxValues all = {integers.data() + row, reals.data() + row, booleans.data() + row,
                            texts.data() + row, nulls.data() + row};
      QxValues without_nulls = all;
      without_nulls.nulls = nullptr;
      return std::vector<QxValues>{without_nulls, all, booleans.size() % 2 == 0 ? all : QxValues{},
                                   all};
    };
    const std::size_t dim = at(sharded_->schema().dim);
    give(std::span(ids).subspan(first, count), std::span(vectors).subspan(first * dim, count * dim),
         values_from(first));
    if (!is_root()) return;
    const QxIds all_ids = {n, ids.data(), nullptr};
    differs(qx_collection_upsert(one_, all_ids, vectors.data(), values_from(0).data()) != QX_OK,
            "upsert");
  }

  void upsert() {
    const Ids ids = draw_ids(percent(10) ? between(0, 1500) : between(0, 60));
    upsert_both(ids, 0, ids.size(), [&](auto own, auto vectors, const auto& values) {
      is_root() ? sharded_->upsert(own, vectors, values) : sharded_->upsert(Ids(3), {}, {});
    });
  }

  // Each rank gives a part of its own, some of them none, of distinct ids.
  void upsert_local() {
    Ids ids = draw_ids(between(0, 200));
    std::ranges::sort(ids);
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    std::shuffle(ids.begin(), ids.end(), random_);
    Ids cuts = draw(sharded_->ranks().size() - 1, [&] { return between(0, std::ssize(ids)); });
    cuts.insert(cuts.end(), {0, std::ssize(ids)});
    std::ranges::sort(cuts);
    const std::int64_t* const cut = cuts.data() + sharded_->ranks().rank();
    upsert_both(ids, at(cut[0]), at(cut[1] - cut[0]),
                [&](auto own, auto vectors, const auto& values) {
                  sharded_->upsert_local(own, vectors, values);
                });
  }

  void remove() {
    const Ids ids = draw_ids(between(0, 80));
    const std::int64_t removed = sharded_->remove(is_root() ? ids : Ids(2));
    std::int64_t of_one = removed;
    if (is_root()) qx_collection_remove(one_, {std::ssize(ids), ids.data(), nullptr}, &of_one);
    differs(removed != of_one, "remove");
  }

  void compact() {
    const bool also_one = percent(50);
    sharded_->compact();
    if (is_root() && also_one) qx_collection_compact(one_, nullptr, nullptr);
  }

  // ---- Searches ----

  void search() {
    const Floats queries = draw_vectors(percent(20) ? between(0, 70) : 1);
    const std::int64_t k = percent(20) ? between(50, 2000) : between(0, 12);
    const std::string filter = percent(40) ? "" : kFilters[between(0, 6)];
    const Ids ids = draw_ids(between(0, 150));
    const QxIds listed = {std::ssize(ids), ids.data(), nullptr};
    QxSearch search = {};
    search.filter = filter.empty() ? nullptr : filter.c_str();
    search.among = percent(30) ? &listed : nullptr;
    std::string message;
    ShardedCollection::Hits found;
    try {
      const auto among =
          search.among == nullptr ? std::nullopt : std::optional<ShardedCollection::Ids>(ids);
      found = is_root() ? sharded_->search(queries, k, filter, among)
                        : sharded_->search(Floats(1), -5, "?", Ids(1));
    } catch (const std::invalid_argument& error) {
      message = error.what();
    }
    if (!is_root()) return differs(!found.empty(), "a search of another rank than 0");
    differs(sharded_->count() != qx_collection_count(one_, nullptr), "count");
    QxHits* hits = nullptr;
    const std::int64_t n = std::ssize(queries) / sharded_->schema().dim;
    ++counts_.searches;
    if (qx_collection_search(one_, nullptr, queries.data(), n, k, &search, &hits) != QX_OK) {
      ++counts_.refused;
      return differs(message != std::string("rank 0: ") + qx_collection_message(), "message");
    }
    differs(!message.empty() || std::ssize(found) != n, "the number of answers");
    for (std::int64_t q = 0; q < n && counts_.differences == 0; ++q)
      compare(found[at(q)], *hits, q);
    qx_hits_free(hits);
  }

  void compare(const std::vector<Hit>& found, const QxHits& hits, std::int64_t q) {
    const std::int64_t* const ids = hits.ids + q * hits.k;
    const float* const scores = hits.scores + q * hits.k;
    differs(std::ssize(found) != hits.counts[q], "the number of hits");
    counts_.hits += std::ssize(found);
    for (std::size_t i = 0; i < found.size() && counts_.differences == 0; ++i) {
      const auto [id, score] = found[i];
      differs(id != ids[i], "an id");
      differs(std::bit_cast<std::uint32_t>(score) != std::bit_cast<std::uint32_t>(scores[i]),
              "a score");
      counts_.ties += i > 0 && scores[i] == scores[i - 1] ? 1 : 0;
    }
  }

  void differs(bool is_different, const char* what) {
    if (!is_different) return;
    ++counts_.differences;
    std::cerr << "rank " << sharded_->ranks().rank() << ": " << what << " differs\n";
  }

  std::mt19937_64 random_;
  Counts& counts_;
  std::string folder_;
  bool small_ = false;
  std::int64_t round_bytes_ = 0;
  std::unique_ptr<ShardedCollection> sharded_;
  QxCollection* one_ = nullptr;
};

// Plays what the command line says, up to the first difference of any rank.
int play_all(std::span<const char* const> arguments) {
  std::uint64_t seed = std::stoull(arguments[1]);
  const std::int64_t histories = std::stoll(arguments[2]);
  const Communicator ranks(MPI_COMM_WORLD);
  if (arguments.size() > 4 && std::stoi(arguments[3]) == ranks.rank() &&
      !force_kernels(arguments[4])) {
    MPI_Abort(MPI_COMM_WORLD, 3);  // they do not run here
  }
  const auto number = ranks.from_root([] { return std::random_device()(); });
  const std::string folder = std::filesystem::temp_directory_path() / ("qx_" + text_of(number));
  Counts counts = {};
  for (std::int64_t i = 0; i < histories && counts.differences == 0; ++i, ++seed) {
    History(seed, folder, counts).play();
    counts.differences = ranks.sum(counts.differences);
  }
  if (!ranks.is_root()) return counts.differences == 0 ? 0 : 1;
  std::filesystem::remove_all(folder);
  if (counts.differences != 0) std::cerr << "in the history of seed " << seed - 1 << "\n";
  std::cout << ranks.size() << " ranks, " << histories << " histories, " << counts.changes
            << " changes, " << counts.searches << " searches of " << counts.hits << " hits ("
            << counts.ties << " ties) compared, " << counts.refused << " refused alike, "
            << counts.differences << " differ\n";
  return counts.differences == 0 && counts.hits > 0 ? 0 : 1;
}

}  // namespace
}  // namespace qx::mpi

int main(int count, char** arguments) {
  int provided = 0;
  MPI_Init_thread(&count, &arguments, MPI_THREAD_FUNNELED, &provided);
  const int result = qx::mpi::play_all({arguments, static_cast<std::size_t>(count)});
  MPI_Finalize();
  return result;
}
