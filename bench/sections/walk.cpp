// The walk over visible rows: counting them and listing their ids.
#include <vector>

#include "limits/limits.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr std::int64_t kSparseLimit = 50000000;

// Shares of the ids that are in the delta, and as many among the tombstones, in per cent. The
// targets name 0, 1 and 10; the others show the shape between and beyond.
std::vector<double> shares(const Run& run) {
  return run.pick(std::vector<double>{0, 0.1, 1, 3, 10, 30}, std::vector<double>{0, 1, 10});
}

// The least that a count must do is to read the ids; the least that a list must do is to copy them.
void run_case(Run& run, const NamedIds& order, double share, Random& random) {
  ChangedBase base(order.ids, 1, random);  // the walk reads no vector
  base.change(share / 100, random);
  const QxIndex* const index = base.index.get();
  const AbslIndex& absl = base.absl;
  const std::int64_t bytes = count_of(order.ids) * 8;
  Ids visible(static_cast<std::size_t>(qx_index_visible_count(index)));
  Ids expected(visible.size());
  Ids copied(order.ids.size());
  require(absl.visible_count() == count_of(visible), "both count as many visible rows");
  absl.visible_ids(expected.data());
  qx_index_visible_ids(index, visible.data());
  require(visible == expected, "both list the same visible ids");

  Contestants counts = {
      {"qx_runtime", Role::kEngine, [&] { return qx_index_visible_count(index); }},
      {"absl::flat_hash_map loop", Role::kBaseline, [&] { return absl.visible_count(); }}};
  add_read_limits(counts, absl.base_ids.data(), bytes);
  run.compare({{"function", "visible_count"}, {"ids", order.name}, {"changed", share}}, bytes,
              count_of(order.ids), counts);

  std::int64_t* const out = visible.data();
  const Contestants lists = {
      {"qx_runtime", Role::kEngine, [&] { return qx_index_visible_ids(index, out); }},
      {"absl::flat_hash_map loop", Role::kBaseline, [&] { return absl.visible_ids(out); }},
      id_copy(absl.base_ids, copied)};
  run.compare({{"function", "visible_ids"}, {"ids", order.name}, {"changed", share}}, bytes,
              count_of(order.ids), lists);
}

void run_walk(Run& run) {
  Random random(3);
  const NamedIds orders[] = {{"ascending", ascending_ids(kRows)},
                             {"permuted", permuted_ids(kRows, random)},
                             {"sparse", sparse_ids(kRows, kSparseLimit, random)}};
  for (const NamedIds& order : orders) {
    for (const double share : shares(run)) run_case(run, order, share, random);
  }
}

}  // namespace

const Section sections::walk = {
    "walk", "counting and listing visible rows, against absl::flat_hash_map", run_walk};

}  // namespace bench
