// The search through lists: Faiss trains the centroids and assigns the rows, and the library takes
// over both, so that both search the same lists for the same query.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "harness/base_bytes.h"
#include "limits/read.h"
#include "limits/touch.h"
#include "peers/faiss_ivf.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int32_t kResults = 10;
constexpr std::int64_t kKey = 1;
constexpr std::int64_t kQueries = 64;

struct Arena {
  Arena(const Settings& settings, std::int64_t vector_dim, std::int64_t list_count, Random& random)
      : dim(vector_dim),
        nlist(list_count),
        rows(row_count(settings, vector_dim)),
        vectors(random_floats(rows * dim, random)),
        queries(random_floats(kQueries * dim, random)),
        faiss({vectors.data(), rows, dim}, nlist),
        lists(faiss.lists()),
        id_to_row(ascending_ids(rows)),
        scattered_index(built_index(vectors.data(), ascending_ids(rows), dim)),
        sorted_index(built_index(sorted_vectors().data(), lists.rows, dim)) {
    attach(scattered_index.get());
    attach(sorted_index.get());
  }

  // A million short vectors, or as many long ones as take 300 MB.
  static std::int64_t row_count(const Settings& settings, std::int64_t dim) {
    const std::int64_t bytes = std::int64_t{settings.pick(300, 64)} << 20;
    return std::min<std::int64_t>(1000000, bytes / (4 * dim));
  }

  // The vectors, list after list.
  Floats sorted_vectors() const {
    Floats sorted(rows * dim);
    for (std::int64_t i = 0; i < rows; ++i) {
      const float* const row = vectors.data() + lists.rows[static_cast<std::size_t>(i)] * dim;
      std::copy_n(row, dim, sorted.data() + i * dim);
    }
    return sorted;
  }

  void attach(QxIndex* index) {
    qx_index_set_ivf(index, kKey, static_cast<int32_t>(nlist), 1, lists.centroids.data(),
                     lists.rows.data(), lists.offsets.data(), count32_of(lists.rows));
  }

  const float* query(std::int64_t i) const { return queries.data() + i * dim; }

  std::int64_t dim;
  std::int64_t nlist;
  std::int64_t rows;
  Floats vectors;
  Floats queries;
  FaissIvf faiss;
  Lists lists;
  Ids id_to_row;          // of the vectors as they came
  Index scattered_index;  // over the vectors as they came
  Index sorted_index;     // over the sorted ones
};

void search_all(const QxIndex* index, const Arena& arena) {
  std::int64_t ids[kResults];
  float scores[kResults];
  for (std::int64_t i = 0; i < kQueries; ++i) {
    consume(qx_index_search_ivf(index, kKey, arena.query(i), kResults, ids, scores));
  }
}

// Reads what every query's search must read at least: all centroids and the probed lists.
void read_all(const Arena& arena, const std::vector<Ids>& probed, const ReadLoop& loop) {
  const float* const sorted = base_vectors(arena.sorted_index.get());
  for (const Ids& lists : probed) {
    consume(loop.read(arena.lists.centroids.data(), arena.lists.centroids.size() * sizeof(float)));
    for (const std::int64_t list : lists) {
      const auto at = static_cast<std::size_t>(list);
      const std::int64_t first = arena.lists.offsets[at];
      const std::int64_t length = arena.lists.offsets[at + 1] - first;
      consume(loop.read(sorted + first * arena.dim,
                        static_cast<std::size_t>(length * arena.dim) * sizeof(float)));
    }
  }
}

// Where the rows are scattered, they cannot be read faster than their lines can be touched.
void touch_all(const Arena& arena, const std::vector<Ids>& probed, const TouchLoop& loop) {
  const Table table{base_vectors(arena.scattered_index.get()), arena.id_to_row.data(), arena.dim};
  for (const Ids& lists : probed) {
    for (const std::int64_t list : lists) {
      const auto at = static_cast<std::size_t>(list);
      const std::int64_t first = arena.lists.offsets[at];
      const std::int64_t length = arena.lists.offsets[at + 1] - first;
      if (length > 0) consume(loop.touch(table, arena.lists.rows.data() + first, length));
    }
  }
}

// Sums are rounded in another order, so near ties may differ: nine of ten results must agree.
void require_same_answer(Arena& arena, const QxIndex* index) {
  std::int64_t ids[kResults];
  float scores[kResults];
  std::int64_t agreed = 0;
  for (std::int64_t i = 0; i < kQueries; ++i) {
    qx_index_search_ivf(index, kKey, arena.query(i), kResults, ids, scores);
    const Ids& expected = arena.faiss.search(arena.query(i), kResults);
    for (const std::int64_t id : ids) {
      agreed += std::find(expected.begin(), expected.end(), id) != expected.end();
    }
  }
  require(agreed * 10 >= kQueries * kResults * 9, "both find the same rows through the lists");
}

void run_case(const Settings& settings, Results& results, Arena& arena, std::int64_t nprobe,
              const char* base, const Index& index) {
  const bool scattered = &index == &arena.scattered_index;
  qx_index_set_ivf_nprobe(index.get(), kKey, static_cast<int32_t>(nprobe));
  arena.faiss.set_nprobe(nprobe);
  require_same_answer(arena, index.get());

  std::vector<Ids> probed;
  for (std::int64_t i = 0; i < kQueries; ++i) {
    probed.push_back(arena.faiss.probed(arena.query(i), nprobe));
  }
  std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine, [&] { search_all(index.get(), arena); }},
      {"Faiss IndexIVFFlat", Role::kPeer, [&] {
         for (std::int64_t i = 0; i < kQueries; ++i) {
           consume(arena.faiss.search(arena.query(i), kResults));
         }
       }}};
  for (const TouchLoop& loop : touch_loops()) {
    if (!scattered) break;
    contestants.push_back({loop.name, Role::kLimit, [&] { touch_all(arena, probed, loop); }});
  }
  for (const ReadLoop& loop : read_loops()) {
    if (scattered) break;
    contestants.push_back({loop.name, Role::kLimit, [&] { read_all(arena, probed, loop); }});
  }
  const Labels labels = {
      {"dim", arena.dim}, {"nlist", arena.nlist}, {"nprobe", nprobe}, {"base", base}};
  compare(settings, results, {"ivf", labels, 0, kQueries}, contestants);
}

}  // namespace

void run_ivf(const Settings& settings, Results& results) {
  Random random(7);
  for (const std::int64_t dim : {32, 128, 768}) {
    for (const std::int64_t nlist : {256, 1024}) {
      if (settings.quick && nlist != 256) continue;
      Arena arena(settings, dim, nlist, random);
      for (const std::int64_t nprobe : {4, 32}) {
        run_case(settings, results, arena, nprobe, "list order", arena.sorted_index);
        run_case(settings, results, arena, nprobe, "scattered", arena.scattered_index);
      }
    }
  }
}

}  // namespace bench
