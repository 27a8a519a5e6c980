#include "harness/changes.h"

#include <algorithm>

namespace bench {
namespace {

// Distinct ids, half of them from the base, in a random order.
Ids draw_ids(const Ids& base_ids, std::int64_t count, std::int64_t max_id, Random& random) {
  Ids base_part = base_ids;
  random.shuffle(base_part);
  base_part.resize(static_cast<std::size_t>(count / 2));
  Ids drawn = sparse_ids(count - count / 2, count_of(base_ids), random);
  for (std::int64_t& id : drawn) id += max_id + 1;
  drawn.insert(drawn.end(), base_part.begin(), base_part.end());
  random.shuffle(drawn);
  return drawn;
}

}  // namespace

Changes draw_changes(const Ids& base_ids, double share, Random& random) {
  const auto count = static_cast<std::int64_t>(share * static_cast<double>(base_ids.size()));
  if (count == 0) return {};
  const std::int64_t max_id = *std::max_element(base_ids.begin(), base_ids.end());
  Changes changes;
  changes.inserted = draw_ids(base_ids, count, max_id, random);
  changes.deleted = draw_ids(base_ids, count, max_id, random);
  return changes;
}

Floats apply_changes(const Changes& changes, QxIndex* index, AbslIndex& absl, std::int64_t dim,
                     Random& random) {
  Floats vectors = random_floats(count_of(changes.inserted) * dim, random);
  qx_index_insert(index, vectors.data(), changes.inserted.data(), count32_of(changes.inserted));
  qx_index_delete(index, changes.deleted.data(), count32_of(changes.deleted));
  absl.insert(changes.inserted);
  absl.erase(changes.deleted);
  return vectors;
}

}  // namespace bench
