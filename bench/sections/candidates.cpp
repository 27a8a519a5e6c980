// The search of listed ids. The lists of one sample touch far more memory than the caches hold, so
// that every vector is met cold, as when each query of a host brings other candidates.
#include <algorithm>
#include <string>
#include <vector>

#include "harness/base_bytes.h"
#include "harness/changes.h"
#include "limits/touch.h"
#include "peers/absl_index.h"
#include "peers/one_row.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int32_t kResults = 10;

// Lists of ids that contestants search one after the other.
struct Candidates {
  Candidates(const Ids& base_ids, std::int64_t list_length, std::int64_t row_bytes, Random& random)
      : length(list_length) {
    constexpr std::int64_t kColdBytes = 96 << 20;
    lists = std::clamp<std::int64_t>(kColdBytes / (length * row_bytes), 1, 1000);
    for (std::int64_t i = 0; i < lists * length; ++i) {
      ids.push_back(base_ids[static_cast<std::size_t>(random.below(count_of(base_ids)))]);
    }
  }

  template <typename Search>
  void for_each_list(Search&& search) const {
    for (std::int64_t list = 0; list < lists; ++list) search(ids.data() + list * length);
  }

  std::int64_t length;
  std::int64_t lists;
  Ids ids;
};

struct Arena {
  Arena(const Settings& settings, std::int64_t vector_dim, Random& random)
      : dim(vector_dim),
        rows((std::int64_t{settings.pick(400, 100)} << 20) / (4 * dim)),
        base_ids(permuted_ids(rows, random)),
        id_to_row(row_table(base_ids)),
        index(built_index(random_floats(rows * dim, random).data(), base_ids, dim)),
        queries(dim, random) {}

  Table table() const { return {base_vectors(index.get()), id_to_row.data(), dim}; }

  std::int64_t dim;
  std::int64_t rows;
  Ids base_ids;
  Ids id_to_row;
  Index index;
  Queries queries;
  AbslIndex absl;
  Floats delta_vectors{0};
  std::int64_t out_ids[kResults] = {};
  float out_scores[kResults] = {};
};

void add_touch_limits(std::vector<Contestant>& contestants, Arena& arena, const Candidates& lists) {
  for (const TouchLoop& loop : touch_loops()) {
    contestants.push_back({loop.name, Role::kLimit, [&arena, &lists, touch = loop.touch] {
                             lists.for_each_list([&](const std::int64_t* ids) {
                               consume(touch(arena.table(), ids, lists.length));
                             });
                           }});
  }
}

// A way to search one list: returns the best score.
using Search = float (*)(Arena& arena, const std::int64_t* ids, std::int64_t count,
                         const float* query);

float scatter_topk(Arena& arena, const std::int64_t* ids, std::int64_t count, const float* query) {
  consume(qx_index_scatter_topk(arena.index.get(), ids, static_cast<int32_t>(count), query,
                                kResults, arena.out_ids, arena.out_scores));
  return arena.out_scores[0];
}

float search_mvcc(Arena& arena, const std::int64_t* ids, std::int64_t count, const float* query) {
  consume(qx_index_search_mvcc(arena.index.get(), ids, static_cast<int32_t>(count), query, kResults,
                               arena.out_ids, arena.out_scores));
  return arena.out_scores[0];
}

float search_plainly(Arena& arena, const std::int64_t* ids, std::int64_t count,
                     const float* query) {
  const Table table = arena.table();
  const auto vector_of = [&](std::int64_t id) { return row_vector(table, id); };
  return search_one_row(vector_of, ids, count, arena.dim, query, kResults);
}

// The same with the maps of changed rows asked before the table.
float search_plainly_with_maps(Arena& arena, const std::int64_t* ids, std::int64_t count,
                               const float* query) {
  const Table table = arena.table();
  const auto vector_of = [&](std::int64_t id) -> const float* {
    if (arena.absl.is_deleted(id)) return nullptr;
    const auto changed = arena.absl.delta_pos.find(id);
    if (changed == arena.absl.delta_pos.end()) return row_vector(table, id);
    return arena.delta_vectors.data() + changed->second * arena.dim;
  };
  return search_one_row(vector_of, ids, count, arena.dim, query, kResults);
}

// One kind of work: the library's function and the plain loop for the same.
struct Work {
  const char* function;
  double changed_percent;
  Search engine;
  Search plain;
};

Contestant searcher(const std::string& name, Role role, Search search, Arena& arena,
                    const Candidates& lists) {
  return {name, role, [&arena, &lists, search] {
            lists.for_each_list([&](const std::int64_t* ids) {
              consume(search(arena, ids, lists.length, arena.queries.next()));
            });
          }};
}

void run_case(const Settings& settings, Results& results, Arena& arena, const Candidates& lists,
              const Work& work) {
  const float* const query = arena.queries.first();
  require(work.engine(arena, lists.ids.data(), lists.length, query) ==
              work.plain(arena, lists.ids.data(), lists.length, query),
          "one row at a time finds the same best score");
  std::vector<Contestant> contestants = {
      searcher("qx_runtime", Role::kEngine, work.engine, arena, lists),
      searcher("one row at a time", Role::kBaseline, work.plain, arena, lists)};
  add_touch_limits(contestants, arena, lists);
  const std::int64_t items = lists.lists * lists.length;
  const Labels labels = {{"function", work.function},
                         {"dim", arena.dim},
                         {"ids", lists.length},
                         {"changed", work.changed_percent}};
  compare(settings, results, {"candidates", labels, items * arena.dim * 4, items}, contestants);
}

}  // namespace

void run_candidates(const Settings& settings, Results& results) {
  Random random(2);
  for (const std::int64_t dim : {32, 128, 768}) {
    Arena arena(settings, dim, random);
    const Candidates few(arena.base_ids, 1000, dim * 4, random);
    const Candidates many(arena.base_ids, 100000, dim * 4, random);
    for (const Candidates* lists : {&few, &many}) {
      run_case(settings, results, arena, *lists, {"scatter_topk", 0, scatter_topk, search_plainly});
      run_case(settings, results, arena, *lists, {"search_mvcc", 0, search_mvcc, search_plainly});
    }
    const Changes changes = draw_changes(arena.base_ids, 0.01, random);
    arena.delta_vectors = apply_changes(changes, arena.index.get(), arena.absl, dim, random);
    for (const Candidates* lists : {&few, &many}) {
      run_case(settings, results, arena, *lists,
               {"search_mvcc", 1, search_mvcc, search_plainly_with_maps});
    }
  }
}

}  // namespace bench
