// What is visible: counting rows and listing their ids, and the ids of those that have a label.
#include <vector>

#include "limits/limits.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr std::int64_t kIdBytes = kRows * 8;

std::vector<NamedIds> orders(Random& random) {
  return {{"ascending", ascending_ids(kRows)}, {"permuted", permuted_ids(kRows, random)}};
}

// The least that a count must do is to read the ids; the least that a list must do is to copy them.
void run_walk_case(Run& run, const NamedIds& order, double share, Random& random) {
  ChangedBase base(order.ids, 1, random);  // the walk reads no vector
  base.change(share / 100, random);
  const QxIndex* const index = base.index.get();
  const AbslIndex& absl = base.absl;
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
  add_read_limits(counts, absl.base_ids.data(), kIdBytes);
  run.compare({{"function", "visible_count"}, {"ids", order.name}, {"changed", share}}, kIdBytes,
              kRows, counts);

  std::int64_t* const out = visible.data();
  run.compare({{"function", "visible_ids"}, {"ids", order.name}, {"changed", share}}, kIdBytes,
              kRows,
              {{"qx_runtime", Role::kEngine, [&] { return qx_index_visible_ids(index, out); }},
               {"absl::flat_hash_map loop", Role::kBaseline, [&] { return absl.visible_ids(out); }},
               id_copy(absl.base_ids, copied)});
}

// The targets name shares of 0, 1 and 10 per cent in the delta, and as many among the tombstones;
// the others show the shape between and beyond.
void run_walk(Run& run) {
  Random random(3);
  std::vector<NamedIds> all = orders(random);
  all.push_back({"sparse", sparse_ids(kRows, 50 * kRows, random)});
  for (const NamedIds& order : all) {
    for (const double share : run.pick(std::vector<double>{0, 0.1, 1, 3, 10, 30}, {0, 1, 10})) {
      run_walk_case(run, order, share, random);
    }
  }
}

// The order in which a host attached the metadata, and whether to all rows.
struct Attached {
  const char* name;
  bool shuffled;
  std::int64_t missing_percent;
};
constexpr Attached kAttached[] = {
    {"base order", false, 0}, {"5 % missing", false, 5}, {"random order", true, 0}};

// One row in a hundred has the label that is asked for.
void attach_labels(ChangedBase& base, const Attached& attached, Random& random) {
  Ids ids = base.absl.base_ids;
  if (attached.shuffled) random.shuffle(ids);
  std::erase_if(ids, [&](std::int64_t) { return random.below(100) < attached.missing_percent; });
  Ids labels(ids.size());
  for (std::int64_t& label : labels) label = random.below(100);
  qx_index_set_rowmeta(base.index.get(), ids.data(), labels.data(), nullptr, 0, count32_of(ids));
  for (std::size_t i = 0; i < ids.size(); ++i) base.absl.labels[ids[i]] = labels[i];
}

void run_match_case(Run& run, const NamedIds& order, double share, const Attached& attached,
                    Random& random) {
  constexpr std::int64_t kWanted = 7;
  ChangedBase base(order.ids, 1, random);  // matching reads no vector
  base.change(share / 100, random);
  attach_labels(base, attached, random);
  Ids found(order.ids.size() * 2);
  Ids expected(found.size());
  const auto match = [&] {
    return qx_index_match_ids(base.index.get(), QX_FILTER_LABEL, 0, kWanted, found.data());
  };
  const auto match_plainly = [&] { return base.absl.match_ids(kWanted, expected.data()); };
  require(match() == match_plainly() && found == expected, "both match the same ids");
  run.compare({{"ids", order.name}, {"attached", attached.name}, {"changed", share}}, kIdBytes,
              kRows,
              {{"qx_runtime", Role::kEngine, match},
               {"absl::flat_hash_map loop", Role::kBaseline, match_plainly},
               id_copy(base.absl.base_ids, expected)});
}

void run_match(Run& run) {
  Random random(4);
  const std::vector<NamedIds> both = orders(random);
  for (const Attached& attached : kAttached) {
    for (const double share : {0.0, 1.0}) {
      for (const NamedIds& order : both) run_match_case(run, order, share, attached, random);
    }
  }
}

}  // namespace

const Section kWalk = {"walk", "counting and listing visible rows, against absl::flat_hash_map",
                       run_walk};
const Section kMatch = {"match", "ids by label, against absl::flat_hash_map", run_match};

}  // namespace bench
