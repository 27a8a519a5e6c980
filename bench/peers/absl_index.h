// The walks and maps of the library, written as the plain loops that an engineer would write first:
// the same rules over absl::flat_hash_map.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>

#include "harness/data.h"

namespace bench {

using AbslMap = absl::flat_hash_map<std::int64_t, std::int64_t>;

struct AbslIndex {
  Ids base_ids;
  Ids delta_ids;
  AbslMap delta_pos;   // id -> position in delta_ids
  AbslMap deleted_at;  // id -> time of its delete, 0 once lifted
  AbslMap labels;      // id -> label

  void insert(const Ids& ids);
  void erase(const Ids& ids);
  void set_labels(const Ids& ids, const Ids& values);

  bool is_deleted(std::int64_t id) const {
    const auto tombstone = deleted_at.find(id);
    return tombstone != deleted_at.end() && tombstone->second != 0;
  }

  // Calls visit(id) for every visible row: delta rows first, then base rows.
  template <typename Visit>
  void walk(Visit&& visit) const {
    for (const std::int64_t id : delta_ids) {
      if (!is_deleted(id)) visit(id);
    }
    for (const std::int64_t id : base_ids) {
      if (!delta_pos.contains(id) && !is_deleted(id)) visit(id);
    }
  }

  std::int64_t visible_count() const;
  std::int64_t visible_ids(std::int64_t* out_ids) const;
  std::int64_t match_ids(std::int64_t label, std::int64_t* out_ids) const;
};

}  // namespace bench
