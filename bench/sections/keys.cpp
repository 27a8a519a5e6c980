// Patterned keys, against random ones: no pattern that hosts give their ids may slow the maps down.
#include <functional>
#include <vector>

#include "harness/data.h"
#include "sections/sections.h"

namespace bench {
namespace {

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

void erase_all(QxIndex* index, const Ids& keys) {
  in_calls(keys, [&](std::int64_t first, std::int32_t count) {
    qx_index_delete(index, keys.data() + first, count);
  });
}

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
void compare(Run& run, const char* operation, std::vector<Arena>& arenas,
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
  compare(run, operation, arenas, [fill](Arena& arena, Role role) {
    return filler(
        arena.name, role, [] { return empty_index(1); },
        [&arena, fill](Index& index) { fill(index.get(), arena.keys); });
  });
}

void run_probe(Run& run, const char* operation, std::vector<Arena>& arenas,
               void (*probe)(Arena& arena)) {
  compare(run, operation, arenas, [probe](Arena& arena, Role role) {
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
  run_fill(run, "delete", arenas, erase_all);
  run_fill(run, "set_rowmeta", arenas, label_all);
  fill_all(arenas, erase_all);
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

const Section sections::keys = {"keys", "patterned keys, against random ones", run_keys};

}  // namespace bench
