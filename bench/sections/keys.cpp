// Patterned keys, against random ones: no pattern that hosts give their ids may slow the maps down.
#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "harness/data.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int32_t kCall = 1000;
constexpr std::int32_t kProbes = 1000000;

using Key = std::int64_t (*)(std::uint64_t i);

std::int64_t spread(std::uint64_t i) { return static_cast<std::int64_t>(Random(i).bits()); }

template <int kShift>
std::int64_t multiple(std::uint64_t i) {
  return static_cast<std::int64_t>(i << kShift);
}

std::int64_t signed_key(std::uint64_t i) {
  return static_cast<std::int64_t>(i | (std::uint64_t{1} << 63));
}

struct Pattern {
  const char* name;
  Key key;
};

// The first one is what the others are compared with.
constexpr Pattern kPatterns[] = {{"random", spread},
                                 {"multiples of 2^16", multiple<16>},
                                 {"multiples of 2^20", multiple<20>},
                                 {"multiples of 2^32", multiple<32>},
                                 {"sign bit set", signed_key}};

// An index whose tombstones and labels have the keys of a pattern, and keys to ask for.
struct Arena {
  Arena(const Pattern& tested, std::int64_t n, Random& random) : pattern(tested) {
    for (std::int64_t i = 0; i < n; ++i) keys.push_back(pattern.key(static_cast<uint64_t>(i)));
    for (std::int32_t i = 0; i < kProbes; ++i) {
      const auto place = static_cast<std::uint64_t>(random.below(n));
      present.push_back(pattern.key(place));
      absent.push_back(pattern.key(place + static_cast<std::uint64_t>(n)));
    }
  }

  template <typename Call>
  void for_each_call(Call&& call) const {
    for (std::int64_t first = 0; first < count_of(keys); first += kCall) {
      const auto count = std::min<std::int64_t>(kCall, count_of(keys) - first);
      call(keys.data() + first, static_cast<int32_t>(count));
    }
  }

  void erase_all() {
    for_each_call(
        [&](const std::int64_t* ids, int32_t n) { qx_index_delete(index.get(), ids, n); });
  }

  void label_all() {
    for_each_call([&](const std::int64_t* ids, int32_t n) {
      qx_index_set_rowmeta(index.get(), ids, ids, nullptr, 0, n);
    });
  }

  // There is no row, so nothing is left of the search but looking the ids up.
  void look_up(const Ids& ids) {
    const float query = 1.0f;
    std::int64_t out_id = 0;
    float out_score = 0;
    consume(qx_index_search_mvcc(index.get(), ids.data(), kProbes, &query, 1, &out_id, &out_score));
  }

  void read_labels(const Ids& ids) {
    consume(qx_index_export_rowmeta(index.get(), ids.data(), kProbes, labels.data(), nullptr));
  }

  Pattern pattern;
  Ids keys;
  Ids present;
  Ids absent;
  Ids labels = Ids(kProbes);
  Index index;
};

using Arenas = std::vector<std::unique_ptr<Arena>>;

// The random keys are the baseline; each pattern is compared with them alone.
Contestant contestant_of(Arena& arena, const std::function<void(Arena&)>& work) {
  const bool is_random = arena.pattern.key == spread;
  return {arena.pattern.name, is_random ? Role::kBaseline : Role::kEngine,
          [&arena, work] { work(arena); }};
}

// Times all patterns side by side and stores a case for each of them.
void compare_patterns(const Settings& settings, Results& results, const char* operation,
                      std::int64_t items, const std::vector<Contestant>& contestants) {
  const std::vector<Timing> timings = time_rounds(contestants, settings.effort());
  for (std::size_t i = 1; i < timings.size(); ++i) {
    const Labels labels = {{"operation", operation}, {"keys", timings[i].name}};
    results.add({"keys", labels, 0, items}, {timings[i], timings.front()});
  }
}

// Fills a new index in every sample.
void run_fill(const Settings& settings, Results& results, const Arenas& arenas,
              const char* operation, void (Arena::*fill)()) {
  std::vector<Contestant> contestants;
  for (const auto& arena : arenas) {
    Contestant contestant = contestant_of(*arena, [fill](Arena& filled) { (filled.*fill)(); });
    contestant.before = [&arena = *arena] { arena.index = empty_index(1); };
    contestant.after = [&arena = *arena] { arena.index.reset(); };
    contestant.single = true;
    contestants.push_back(contestant);
  }
  compare_patterns(settings, results, operation, count_of(arenas.front()->keys), contestants);
}

void run_probe(const Settings& settings, Results& results, const Arenas& arenas,
               const char* operation, const std::function<void(Arena&)>& probe) {
  std::vector<Contestant> contestants;
  for (const auto& arena : arenas) contestants.push_back(contestant_of(*arena, probe));
  compare_patterns(settings, results, operation, kProbes, contestants);
}

}  // namespace

void run_keys(const Settings& settings, Results& results) {
  Random random(10);
  const std::int64_t n = settings.pick(10000000, 1000000);
  Arenas arenas;
  for (const Pattern& pattern : kPatterns) {
    arenas.push_back(std::make_unique<Arena>(pattern, n, random));
  }
  run_fill(settings, results, arenas, "delete", &Arena::erase_all);
  run_fill(settings, results, arenas, "set_rowmeta", &Arena::label_all);
  for (const auto& arena : arenas) {
    arena->index = empty_index(1);
    arena->erase_all();
  }
  run_probe(settings, results, arenas, "search_mvcc, deleted ids",
            [](Arena& arena) { arena.look_up(arena.present); });
  run_probe(settings, results, arenas, "search_mvcc, unknown ids",
            [](Arena& arena) { arena.look_up(arena.absent); });
  for (const auto& arena : arenas) {
    arena->index = empty_index(1);
    arena->label_all();
  }
  run_probe(settings, results, arenas, "export_rowmeta",
            [](Arena& arena) { arena.read_labels(arena.present); });
}

}  // namespace bench
