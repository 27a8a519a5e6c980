// The ids of visible rows that have a label: one row in a hundred has the label that is asked for.
#include <vector>

#include "limits/limits.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr std::int64_t kLabels = 100;
constexpr std::int64_t kWanted = 7;

// The order in which a host attached the metadata, and whether to all rows.
struct Attached {
  const char* name;
  bool shuffled;
  std::int64_t missing_percent;
};
constexpr Attached kAttached[] = {
    {"base order", false, 0}, {"5 % missing", false, 5}, {"random order", true, 0}};

void attach_labels(ChangedBase& base, const Attached& attached, Random& random) {
  Ids ids = base.absl.base_ids;
  if (attached.shuffled) random.shuffle(ids);
  std::erase_if(ids, [&](std::int64_t) { return random.below(100) < attached.missing_percent; });
  Ids labels(ids.size());
  for (std::int64_t& label : labels) label = random.below(kLabels);
  qx_index_set_rowmeta(base.index.get(), ids.data(), labels.data(), nullptr, 0, count32_of(ids));
  for (std::size_t i = 0; i < ids.size(); ++i) base.absl.labels[ids[i]] = labels[i];
}

void run_case(Run& run, const NamedIds& order, double share, const Attached& attached,
              Random& random) {
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
  run.compare({{"ids", order.name}, {"attached", attached.name}, {"changed", share}}, kRows * 8,
              kRows,
              {{"qx_runtime", Role::kEngine, match},
               {"absl::flat_hash_map loop", Role::kBaseline, match_plainly},
               id_copy(base.absl.base_ids, expected)});
}

void run_match(Run& run) {
  Random random(4);
  const NamedIds orders[] = {{"ascending", ascending_ids(kRows)},
                             {"permuted", permuted_ids(kRows, random)}};
  for (const Attached& attached : kAttached) {
    for (const double share : {0.0, 1.0}) {
      for (const NamedIds& order : orders) run_case(run, order, share, attached, random);
    }
  }
}

}  // namespace

const Section sections::match = {"match", "ids by label, against absl::flat_hash_map", run_match};

}  // namespace bench
