#include "peers/absl_index.h"

#include <cstddef>

namespace bench {

void AbslIndex::insert(const Ids& ids) {
  for (const std::int64_t id : ids) {
    const auto [entry, is_new] = delta_pos.try_emplace(id, count_of(delta_ids));
    if (is_new) delta_ids.push_back(id);
    const auto tombstone = deleted_at.find(id);
    if (tombstone != deleted_at.end()) tombstone->second = 0;
  }
}

void AbslIndex::erase(const Ids& ids) {
  for (const std::int64_t id : ids) deleted_at[id] = 1;
}

void AbslIndex::set_labels(const Ids& ids, const Ids& values) {
  for (std::size_t i = 0; i < ids.size(); ++i) labels[ids[i]] = values[i];
}

std::int64_t AbslIndex::visible_count() const {
  std::int64_t count = 0;
  walk([&](std::int64_t) { ++count; });
  return count;
}

std::int64_t AbslIndex::visible_ids(std::int64_t* out_ids) const {
  std::int64_t count = 0;
  walk([&](std::int64_t id) { out_ids[count++] = id; });
  return count;
}

std::int64_t AbslIndex::match_ids(std::int64_t label, std::int64_t* out_ids) const {
  std::int64_t count = 0;
  walk([&](std::int64_t id) {
    const auto entry = labels.find(id);
    if ((entry == labels.end() ? -1 : entry->second) == label) out_ids[count++] = id;
  });
  return count;
}

}  // namespace bench
