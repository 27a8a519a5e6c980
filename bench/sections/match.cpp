// The ids of visible rows that have a label: one row in a hundred has the label that is asked for.
#include <cstring>
#include <vector>

#include "harness/changes.h"
#include "peers/absl_index.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr std::int64_t kDim = 1;  // matching reads no vector
constexpr std::int64_t kLabels = 100;
constexpr std::int64_t kWanted = 7;

// The order in which a host attached the metadata, and whether to all rows.
enum class Attached { kBaseOrder, kWithGaps, kRandomOrder };

const char* attached_name(Attached attached) {
  if (attached == Attached::kBaseOrder) return "base order";
  return attached == Attached::kWithGaps ? "5 % missing" : "random order";
}

Ids metadata_ids(const Ids& base_ids, Attached attached, Random& random) {
  Ids ids = base_ids;
  if (attached == Attached::kRandomOrder) random.shuffle(ids);
  if (attached == Attached::kWithGaps) {
    std::erase_if(ids, [&](std::int64_t) { return random.below(100) < 5; });
  }
  return ids;
}

void attach_labels(const Ids& ids, QxIndex* index, AbslIndex& absl, Random& random) {
  Ids labels(ids.size());
  for (std::int64_t& label : labels) label = random.below(kLabels);
  qx_index_set_rowmeta(index, ids.data(), labels.data(), nullptr, 0, count32_of(ids));
  absl.set_labels(ids, labels);
}

void run_case(const Settings& settings, Results& results, const Ids& base_ids, double share,
              Attached attached, Labels labels, Random& random) {
  const Floats vectors = random_floats(kRows * kDim, random);
  const Index index = built_index(vectors.data(), base_ids, kDim);
  AbslIndex absl;
  absl.base_ids = base_ids;
  apply_changes(draw_changes(base_ids, share / 100, random), index.get(), absl, kDim, random);
  attach_labels(metadata_ids(base_ids, attached, random), index.get(), absl, random);

  Ids found(base_ids.size() * 2);
  Ids expected(found.size());
  const auto match = [&] { return qx_index_match_ids(index.get(), 1, 0, kWanted, found.data()); };
  const auto match_plainly = [&] { return absl.match_ids(kWanted, expected.data()); };
  require(match() == match_plainly() && found == expected, "both match the same ids");

  labels.emplace_back("attached", attached_name(attached));
  labels.emplace_back("changed", share);
  const std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine, [&] { consume(match()); }},
      {"absl::flat_hash_map loop", Role::kBaseline, [&] { consume(match_plainly()); }},
      {"copy the ids", Role::kLimit, [&] {
         std::memcpy(expected.data(), base_ids.data(), base_ids.size() * sizeof(std::int64_t));
         consume(expected);
       }}};
  compare(settings, results, {"match", labels, kRows * 8, kRows}, contestants);
}

}  // namespace

void run_match(const Settings& settings, Results& results) {
  Random random(4);
  const Ids ascending = ascending_ids(kRows);
  const Ids permuted = permuted_ids(kRows, random);
  for (const Attached attached :
       {Attached::kBaseOrder, Attached::kWithGaps, Attached::kRandomOrder}) {
    for (const double share : {0.0, 1.0}) {
      run_case(settings, results, ascending, share, attached, {{"ids", "ascending"}}, random);
      run_case(settings, results, permuted, share, attached, {{"ids", "permuted"}}, random);
    }
  }
}

}  // namespace bench
