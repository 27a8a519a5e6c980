// Insert, delete, metadata and build: each sample fills a new index, in calls of 1,000 ids.
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "peers/absl_index.h"
#include "peers/copies.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kDim = 128;
constexpr std::int32_t kCall = 1000;

struct Order {
  const char* name;
  Ids ids;
};

// Ids of all 64 bits cannot be ids of a base, and need not be: the maps take any.
Ids random_keys(std::int64_t n, Random& random) {
  Ids ids(static_cast<std::size_t>(n));
  for (std::int64_t& id : ids) id = static_cast<std::int64_t>(random.bits());
  return ids;
}

template <typename Call>
void for_each_call(const Ids& ids, Call&& call) {
  for (std::int64_t first = 0; first < count_of(ids); first += kCall) {
    call(first, std::min<std::int64_t>(kCall, count_of(ids) - first));
  }
}

// A contestant that fills a new thing of its own in every sample.
template <typename Make, typename Fill>
Contestant filler(const std::string& name, Role role, Make make, Fill fill) {
  using Thing = decltype(make());
  const auto thing = std::make_shared<Thing>();
  return {name,
          role,
          [thing, fill] { fill(*thing); },
          [thing, make] { *thing = make(); },
          [thing] { *thing = Thing(); },
          true};
}

void fill_map(AbslMap& map, const Ids& ids) {
  for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
    const std::int64_t* const call_ids = ids.data() + first;
    for (std::int64_t i = 0; i < count; ++i) map.insert_or_assign(call_ids[i], first + 1);
  });
}

void run_delete(const Settings& settings, Results& results, const Order& order) {
  const Ids& ids = order.ids;
  const auto fill = [&](Index& index) {
    for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
      qx_index_delete(index.get(), ids.data() + first, static_cast<int32_t>(count));
    });
  };
  compare(settings, results,
          {"mutation", {{"function", "delete"}, {"ids", order.name}}, 0, count_of(ids)},
          {filler(
               "qx_runtime", Role::kEngine, [] { return empty_index(1); }, fill),
           filler(
               "absl::flat_hash_map insertions", Role::kBaseline, [] { return AbslMap(); },
               [&](AbslMap& map) { fill_map(map, ids); })});
}

void run_metadata(const Settings& settings, Results& results, const Order& order,
                  std::int32_t columns) {
  const Ids& ids = order.ids;
  const Ids values(ids.size() * static_cast<std::size_t>(columns) + ids.size(), 5);
  const auto fill = [&, columns](Index& index) {
    for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
      qx_index_set_rowmeta(index.get(), ids.data() + first, values.data(), values.data(), columns,
                           static_cast<int32_t>(count));
    });
  };
  using Maps = std::vector<AbslMap>;
  const auto make_maps = [columns] { return Maps(static_cast<std::size_t>(columns) + 1); };
  const auto fill_maps = [&](Maps& maps) {
    for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
      for (std::int64_t i = first; i < first + count; ++i) {
        for (AbslMap& map : maps) map.insert_or_assign(ids[static_cast<std::size_t>(i)], 5);
      }
    });
  };
  const Labels labels = {{"function", "set_rowmeta, columns: " + std::to_string(columns)},
                         {"ids", order.name}};
  compare(settings, results, {"mutation", labels, 0, count_of(ids)},
          {filler(
               "qx_runtime", Role::kEngine, [] { return empty_index(1); }, fill),
           filler("absl::flat_hash_map insertions", Role::kBaseline, make_maps, fill_maps)});
}

// What an insert must do at least: keep a copy of the vectors and an entry in a map.
struct CopyAndMap {
  GrowingFloats vectors;
  AbslMap map;
};

void run_insert(const Settings& settings, Results& results, const Order& order,
                const Floats& vectors) {
  const Ids& ids = order.ids;
  const auto fill = [&](Index& index) {
    for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
      qx_index_insert(index.get(), vectors.data() + first * kDim, ids.data() + first,
                      static_cast<int32_t>(count));
    });
  };
  const auto copy_and_map = [&](CopyAndMap& both) {
    for_each_call(ids, [&](std::int64_t first, std::int64_t count) {
      both.vectors.append(vectors.data() + first * kDim, count * kDim);
      for (std::int64_t i = first; i < first + count; ++i) {
        both.map.insert_or_assign(ids[static_cast<std::size_t>(i)], i);
      }
    });
  };
  compare(settings, results,
          {"mutation",
           {{"function", "insert"}, {"ids", order.name}},
           count_of(ids) * kDim * 4,
           count_of(ids)},
          {filler(
               "qx_runtime", Role::kEngine, [] { return empty_index(kDim); }, fill),
           filler(
               "vector copy and absl::flat_hash_map entry", Role::kBaseline,
               [] { return CopyAndMap(); }, copy_and_map)});
}

void run_build(const Settings& settings, Results& results, const Order& order,
               const Floats& vectors) {
  const Ids& ids = order.ids;
  const auto build = [&](Index& index) {
    consume(qx_index_build(index.get(), vectors.data(), count_of(ids), kDim, ids.data(), nullptr,
                           nullptr, nullptr, 0));
  };
  compare(settings, results,
          {"mutation",
           {{"function", "build"}, {"ids", order.name}},
           count_of(ids) * kDim * 4,
           count_of(ids)},
          {filler(
               "qx_runtime", Role::kEngine, [] { return empty_index(kDim); }, build),
           filler(
               "block copies, table fill and pass", Role::kBaseline, [] { return PlainBase(); },
               [&](PlainBase& base) { base.build(vectors.data(), ids, kDim); })});
}

std::size_t heap_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// All that the heap gave for the entries of one map, whatever it is made of.
void measure_entry_bytes(Results& results, const Order& order) {
  const Index index = empty_index(1);
  const std::size_t before = heap_bytes();
  for_each_call(order.ids, [&](std::int64_t first, std::int64_t count) {
    qx_index_delete(index.get(), order.ids.data() + first, static_cast<int32_t>(count));
  });
  const double bytes = static_cast<double>(heap_bytes() - before);
  const std::int64_t entries = count_of(order.ids);
  results.add_figure({"mutation", {{"function", "memory"}, {"ids", order.name}}, 0, entries},
                     "bytes per entry", bytes / static_cast<double>(entries));
}

}  // namespace

void run_mutation(const Settings& settings, Results& results) {
  Random random(9);
  const std::int64_t n = settings.pick(1000000, 200000);
  const Order orders[] = {{"ascending", ascending_ids(n)},
                          {"permuted", permuted_ids(n, random)},
                          {"random 64-bit", random_keys(n, random)}};
  for (const Order& order : orders) {
    run_delete(settings, results, order);
    run_metadata(settings, results, order, 0);
    run_metadata(settings, results, order, 2);
  }
  const Floats vectors = random_floats(n * kDim, random);
  for (const Order& order : orders) run_insert(settings, results, order, vectors);
  const Order sparse = {"sparse", sparse_ids(n, 20 * n, random)};
  for (const Order* order : {&orders[0], &orders[1], &sparse}) {
    run_build(settings, results, *order, vectors);
  }
  // Memory costs little time to measure, so the count is always that of the target.
  constexpr std::int64_t kEntries = 1000000;
  measure_entry_bytes(results, {"ascending", ascending_ids(kEntries)});
  measure_entry_bytes(results, {"random 64-bit", random_keys(kEntries, random)});
}

}  // namespace bench
