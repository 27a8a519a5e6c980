// The search through lists: Faiss trains the centroids and assigns the rows, and the library takes
// over both, so that both search the same lists for the same query.
#include <faiss/IndexFlat.h>
#include <faiss/IndexIVFFlat.h>

#include <algorithm>
#include <vector>

#include "limits/limits.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kKey = 1;
constexpr std::int64_t kQueries = 64;

struct Arena {
  // A million short vectors, or as many long ones as take 300 MB.
  Arena(const Run& run, std::int64_t vector_dim, std::int64_t list_count, Random& random)
      : dim(vector_dim),
        nlist(list_count),
        rows(std::min<std::int64_t>(1000000, (run.pick(300, 64) << 20) / (4 * dim))),
        vectors(random_floats(rows * dim, random)),
        queries(random_floats(kQueries * dim, random)),
        quantizer(dim),
        faiss(&quantizer, static_cast<std::size_t>(dim), static_cast<std::size_t>(nlist),
              faiss::METRIC_INNER_PRODUCT),
        id_to_row(ascending_ids(rows)) {
    train();
    Floats sorted(rows * dim);
    float* at = sorted.data();
    for (const std::int64_t row : list_rows) at = std::copy_n(vectors.data() + row * dim, dim, at);
    scattered_index = with_lists(vectors, id_to_row);
    sorted_index = with_lists(sorted, list_rows);
  }

  // How good the centroids are does not matter, so a short training is enough.
  void train() {
    constexpr std::int64_t kRowsPerCentroid = 40;
    faiss.cp.niter = 4;
    faiss.cp.min_points_per_centroid = 1;
    faiss.train(std::min(rows, nlist * kRowsPerCentroid), vectors.data());
    faiss.add(rows, vectors.data());
    for (std::size_t list = 0; list < faiss.nlist; ++list) {
      faiss::InvertedLists::ScopedIds ids(faiss.invlists, list);
      list_rows.insert(list_rows.end(), ids.get(), ids.get() + faiss.get_list_size(list));
      offsets.push_back(count32_of(list_rows));
    }
  }

  Index with_lists(const Floats& base, const Ids& ids) const {
    Index index = built_index(base.data(), ids, dim);
    qx_index_set_ivf(index.get(), kKey, static_cast<std::int32_t>(nlist), 1, quantizer.get_xb(),
                     list_rows.data(), offsets.data(), count32_of(list_rows));
    return index;
  }

  template <typename Search>
  void for_each_query(Search&& search) const {
    for (std::int64_t i = 0; i < kQueries; ++i) search(queries.data() + i * dim);
  }

  // Calls visit(first, length) for each list that is not empty.
  template <typename Visit>
  void for_each_list(const Ids& probed, Visit&& visit) const {
    for (const std::int64_t list : probed) {
      const std::int32_t* const ends = offsets.data() + list;
      if (ends[1] > ends[0]) visit(std::int64_t{ends[0]}, std::int64_t{ends[1] - ends[0]});
    }
  }

  std::int64_t dim;
  std::int64_t nlist;
  std::int64_t rows;
  Floats vectors;
  Floats queries;
  faiss::IndexFlatIP quantizer;  // whose vectors are the centroids
  faiss::IndexIVFFlat faiss;
  Ids list_rows;                            // every row once, list after list
  std::vector<std::int32_t> offsets = {0};  // nlist + 1
  Ids id_to_row;                            // of the vectors as they came
  Index scattered_index;                    // over the vectors as they came
  Index sorted_index;                       // over the vectors list after list
};

// Reads what every query's search must read at least: all centroids and the probed lists.
void read_all(const Arena& arena, const std::vector<Ids>& probed, const ReadLoop& loop) {
  const float* const sorted = base_vectors(arena.sorted_index);
  const auto read = [&](const float* floats, std::int64_t count) {
    consume(loop.read(floats, static_cast<std::size_t>(count) * sizeof(float)));
  };
  for (const Ids& lists : probed) {
    read(arena.quantizer.get_xb(), arena.nlist * arena.dim);
    arena.for_each_list(lists, [&](std::int64_t first, std::int64_t length) {
      read(sorted + first * arena.dim, length * arena.dim);
    });
  }
}

// Where the rows are scattered, they cannot be read faster than their lines can be touched.
void touch_all(const Arena& arena, const std::vector<Ids>& probed, const TouchLoop& loop) {
  const Table table{base_vectors(arena.scattered_index), arena.id_to_row.data(), arena.dim};
  for (const Ids& lists : probed) {
    arena.for_each_list(lists, [&](std::int64_t first, std::int64_t length) {
      consume(loop.touch(table, arena.list_rows.data() + first, length));
    });
  }
}

void run_case(Run& run, Arena& arena, std::int64_t nprobe, bool scattered) {
  const Index& index = scattered ? arena.scattered_index : arena.sorted_index;
  Slots ours;
  Slots theirs;
  Slots lists(nprobe);
  const auto search = [&](const float* query) {
    consume(
        qx_index_search_ivf(index.get(), kKey, query, ours.k, ours.ids.data(), ours.scores.data()));
  };
  const auto search_faiss = [&](const float* query) {
    arena.faiss.search(1, query, theirs.k, theirs.scores.data(), theirs.ids.data());
  };
  qx_index_set_ivf_nprobe(index.get(), kKey, lists.k);
  arena.faiss.nprobe = static_cast<std::size_t>(nprobe);

  // Sums are rounded in another order, so near ties may differ: nine of ten results must agree.
  std::int64_t agreed = 0;
  std::vector<Ids> probed;
  arena.for_each_query([&](const float* query) {
    search(query);
    search_faiss(query);
    for (const std::int64_t id : ours.ids) {
      agreed += std::find(theirs.ids.begin(), theirs.ids.end(), id) != theirs.ids.end();
    }
    arena.quantizer.search(1, query, nprobe, lists.scores.data(), lists.ids.data());
    probed.push_back(lists.ids);
  });
  require(agreed * 10 >= kQueries * kResults * 9, "both find the same rows through the lists");

  Contestants contestants = {
      {"qx_runtime", Role::kEngine, [&] { arena.for_each_query(search); }},
      {"Faiss IndexIVFFlat", Role::kPeer, [&] { arena.for_each_query(search_faiss); }}};
  if (scattered) {
    add_limits(contestants, touch_loops(), [&](auto& loop) { touch_all(arena, probed, loop); });
  } else {
    add_limits(contestants, read_loops(), [&](auto& loop) { read_all(arena, probed, loop); });
  }
  run.compare({{"dim", arena.dim},
               {"nlist", arena.nlist},
               {"nprobe", nprobe},
               {"base", scattered ? "scattered" : "list order"}},
              0, kQueries, contestants);
}

void run_ivf(Run& run) {
  Random random(7);
  for (const std::int64_t dim : {32, 128, 768}) {
    for (const std::int64_t nlist : run.pick(Ids{256, 1024}, Ids{256})) {
      Arena arena(run, dim, nlist, random);
      for (const std::int64_t nprobe : {4, 32}) {
        for (const bool scattered : {false, true}) run_case(run, arena, nprobe, scattered);
      }
    }
  }
}

}  // namespace

const Section kIvf = {"ivf", "search through lists, against Faiss IndexIVFFlat", run_ivf};

}  // namespace bench
