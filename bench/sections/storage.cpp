// Insert, delete, metadata and build: each sample fills a new index, in calls of 1,000 ids. And
// what the maps behind them make of patterned keys.
#include <malloc.h>

#include <functional>
#include <string>
#include <vector>

#include "peers/absl_index.h"
#include "peers/copies.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kDim = 128;

// Ids of all 64 bits cannot be ids of a base, and need not be: the maps take any.
Ids random_keys(std::int64_t n, Random& random) {
  Ids ids(static_cast<std::size_t>(n));
  for (std::int64_t& id : ids) id = static_cast<std::int64_t>(random.bits());
  return ids;
}

// One function on the ids of one order: the library's and the baseline's, each with what it fills.
template <typename Fill, typename Make, typename FillPlainly>
void compare(Run& run, const std::string& function, const NamedIds& order, std::int64_t dim,
             Fill fill, const char* baseline, Make make, FillPlainly fill_plainly) {
  const std::int64_t bytes = dim == 1 ? 0 : count_of(order.ids) * dim * 4;
  run.compare({{"function", function}, {"ids", order.name}}, bytes, count_of(order.ids),
              {filler(
                   "qx_runtime", Role::kEngine, [dim] { return empty_index(dim); }, fill),
               filler(baseline, Role::kBaseline, make, fill_plainly)});
}

void erase(QxIndex* index, const Ids& ids) {
  in_calls(ids, [&](std::int64_t first, std::int32_t count) {
    qx_index_delete(index, ids.data() + first, count);
  });
}

void run_delete(Run& run, const NamedIds& order) {
  const Ids& ids = order.ids;
  compare(
      run, "delete", order, 1, [&](Index& index) { erase(index.get(), ids); },
      "absl::flat_hash_map insertions", [] { return AbslMap(); },
      [&](AbslMap& map) {
        std::int64_t at = 0;
        for (const std::int64_t id : ids) map.insert_or_assign(id, 1 + at++ / 1000);
      });
}

void run_metadata(Run& run, const NamedIds& order, std::int32_t columns) {
  const Ids& ids = order.ids;
  const Ids values(ids.size() * (static_cast<std::size_t>(columns) + 1), 5);
  using Maps = std::vector<AbslMap>;
  compare(
      run, "set_rowmeta, columns: " + std::to_string(columns), order, 1,
      [&](Index& index) {
        in_calls(ids, [&](std::int64_t first, std::int32_t count) {
          qx_index_set_rowmeta(index.get(), ids.data() + first, values.data(), values.data(),
                               columns, count);
        });
      },
      "absl::flat_hash_map insertions",
      [columns] { return Maps(static_cast<std::size_t>(columns) + 1); },
      [&](Maps& maps) {
        for (const std::int64_t id : ids) {
          for (AbslMap& map : maps) map.insert_or_assign(id, 5);
        }
      });
}

// What an insert must do at least: keep a copy of the vectors and an entry in a map.
struct CopyAndMap {
  Block<float> vectors;
  AbslMap map;
};

void run_insert(Run& run, const NamedIds& order, const Floats& vectors) {
  const Ids& ids = order.ids;
  compare(
      run, "insert", order, kDim,
      [&](Index& index) {
        in_calls(ids, [&](std::int64_t first, std::int32_t count) {
          qx_index_insert(index.get(), vectors.data() + first * kDim, ids.data() + first, count);
        });
      },
      "vector copy and absl::flat_hash_map entry", [] { return CopyAndMap(); },
      [&](CopyAndMap& both) {
        in_calls(ids, [&](std::int64_t first, std::int32_t count) {
          both.vectors.append(vectors.data() + first * kDim,
                              static_cast<std::size_t>(count * kDim));
          for (std::int64_t i = first; i < first + count; ++i) {
            both.map.insert_or_assign(ids[static_cast<std::size_t>(i)], i);
          }
        });
      });
}

void run_build(Run& run, const NamedIds& order, const Floats& vectors) {
  const Ids& ids = order.ids;
  compare(
      run, "build", order, kDim,
      [&](Index& index) {
        consume(qx_index_build(index.get(), vectors.data(), count_of(ids), kDim, ids.data(),
                               nullptr, nullptr, nullptr, 0));
      },
      "block copies, table fill and pass", [] { return PlainBase(); },
      [&](PlainBase& base) { base.build(vectors.data(), ids, kDim); });
}

std::size_t heap_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// All that the heap gave for the entries of one map, whatever it is made of.
void measure_entry_bytes(Run& run, const NamedIds& order) {
  const Index index = empty_index(1);
  const std::size_t before = heap_bytes();
  erase(index.get(), order.ids);
  const double bytes = static_cast<double>(heap_bytes() - before);
  const std::int64_t entries = count_of(order.ids);
  run.add_figure({{"function", "memory"}, {"ids", order.name}}, entries, "bytes per entry",
                 bytes / static_cast<double>(entries));
}

void run_mutation(Run& run) {
  Random random(9);
  const std::int64_t n = run.pick(1000000, 200000);
  const NamedIds ascending = {"ascending", ascending_ids(n)};
  const NamedIds permuted = {"permuted", permuted_ids(n, random)};
  const NamedIds any = {"random 64-bit", random_keys(n, random)};
  const NamedIds sparse = {"sparse", sparse_ids(n, 20 * n, random)};
  for (const NamedIds* order : {&ascending, &permuted, &any}) {
    run_delete(run, *order);
    run_metadata(run, *order, 0);
    run_metadata(run, *order, 2);
  }
  const Floats vectors = random_floats(n * kDim, random);
  for (const NamedIds* order : {&ascending, &permuted, &any}) run_insert(run, *order, vectors);
  for (const NamedIds* order : {&ascending, &permuted, &sparse}) run_build(run, *order, vectors);
  // Memory costs little time to measure, so the count is always that of the target.
  constexpr std::int64_t kEntries = 1000000;
  measure_entry_bytes(run, {"ascending", ascending_ids(kEntries)});
  measure_entry_bytes(run, {"random 64-bit", random_keys(kEntries, random)});
}

// Patterned keys, against random ones: no pattern that hosts give their ids may slow the maps down.
constexpr std::int32_t kProbes = 1000000;

struct Pattern {
  const char* name;
  std::int64_t (*key)(std::uint64_t i);
};

template <int kShift>
std::int64_t multiple(std::uint64_t i) {
  return static_cast<std::int64_t>(i << kShift);
}

// The first one is what the others are compared with.
constexpr Pattern kPatterns[] = {
    {"random", [](std::uint64_t i) { return static_cast<std::int64_t>(Random(i).bits()); }},
    {"multiples of 2^16", multiple<16>},
    {"multiples of 2^20", multiple<20>},
    {"multiples of 2^32", multiple<32>},
    {"sign bit set", [](std::uint64_t i) { return INT64_MIN + static_cast<std::int64_t>(i); }}};

// An index whose tombstones or labels have the keys of a pattern, and keys to ask for.
struct Arena {
  Arena(const Pattern& pattern, std::int64_t n, Random& random) : name(pattern.name) {
    for (std::int64_t i = 0; i < n; ++i) keys.push_back(pattern.key(static_cast<std::uint64_t>(i)));
    for (std::int32_t i = 0; i < kProbes; ++i) {
      const auto place = static_cast<std::uint64_t>(random.below(n));
      present.push_back(pattern.key(place));
      absent.push_back(pattern.key(place + static_cast<std::uint64_t>(n)));
    }
  }

  const char* name;
  Ids keys;
  Ids present;
  Ids absent;
  Ids labels = Ids(kProbes);
  Index index;
};

using Fill = void (*)(QxIndex* index, const Ids& keys);

void label_all(QxIndex* index, const Ids& keys) {
  in_calls(keys, [&](std::int64_t first, std::int32_t count) {
    const std::int64_t* const ids = keys.data() + first;
    qx_index_set_rowmeta(index, ids, ids, nullptr, 0, count);
  });
}

// There is no row, so nothing is left of the search but looking the ids up.
void look_up(const Arena& arena, const Ids& ids) {
  const float query = 1.0f;
  Slots slots(1);
  consume(slots.search_mvcc(arena.index.get(), ids.data(), kProbes, &query));
}

// Times all patterns side by side and stores a case for each of them but the random keys, which are
// the baseline.
void compare_patterns(Run& run, const char* operation, std::vector<Arena>& arenas,
                      const std::function<Contestant(Arena&, Role)>& contestant_of) {
  Contestants contestants;
  for (Arena& arena : arenas) {
    contestants.push_back(
        contestant_of(arena, contestants.empty() ? Role::kBaseline : Role::kEngine));
  }
  const bool fills = contestants.front().single;
  const std::vector<Timing> timings = time_rounds(contestants, run.effort());
  for (std::size_t i = 1; i < timings.size(); ++i) {
    run.add({{"operation", operation}, {"keys", timings[i].name}}, 0,
            fills ? count_of(arenas.front().keys) : kProbes, {timings[i], timings.front()});
  }
}

// Every sample fills a new index.
void run_fill(Run& run, const char* operation, std::vector<Arena>& arenas, Fill fill) {
  compare_patterns(run, operation, arenas, [fill](Arena& arena, Role role) {
    return filler(
        arena.name, role, [] { return empty_index(1); },
        [&arena, fill](Index& index) { fill(index.get(), arena.keys); });
  });
}

void run_probe(Run& run, const char* operation, std::vector<Arena>& arenas,
               void (*probe)(Arena& arena)) {
  compare_patterns(run, operation, arenas, [probe](Arena& arena, Role role) {
    return Contestant(arena.name, role, [&arena, probe] { probe(arena); });
  });
}

void fill_all(std::vector<Arena>& arenas, Fill fill) {
  for (Arena& arena : arenas) {
    arena.index = empty_index(1);
    fill(arena.index.get(), arena.keys);
  }
}

void run_keys(Run& run) {
  Random random(10);
  std::vector<Arena> arenas;
  for (const Pattern& pattern : kPatterns) {
    arenas.emplace_back(pattern, run.pick(10000000, 1000000), random);
  }
  run_fill(run, "delete", arenas, erase);
  run_fill(run, "set_rowmeta", arenas, label_all);
  fill_all(arenas, erase);
  run_probe(run, "search_mvcc, deleted ids", arenas,
            [](Arena& arena) { look_up(arena, arena.present); });
  run_probe(run, "search_mvcc, unknown ids", arenas,
            [](Arena& arena) { look_up(arena, arena.absent); });
  fill_all(arenas, label_all);
  run_probe(run, "export_rowmeta", arenas, [](Arena& arena) {
    consume(qx_index_export_rowmeta(arena.index.get(), arena.present.data(), kProbes,
                                    arena.labels.data(), nullptr));
  });
}

}  // namespace

const Section kMutation = {
    "mutation", "insert, delete, metadata and build, against maps and copies", run_mutation};

const Section kKeys = {"keys", "patterned keys, against random ones", run_keys};

}  // namespace bench
