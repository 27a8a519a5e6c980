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

  void insert(const Ids& ids) {
    for (const std::int64_t id : ids) {
      if (delta_pos.try_emplace(id, count_of(delta_ids)).second) delta_ids.push_back(id);
      const auto tombstone = deleted_at.find(id);
      if (tombstone != deleted_at.end()) tombstone->second = 0;
    }
  }

  bool is_deleted(std::int64_t id) const {
    const auto tombstone = deleted_at.find(id);
    return tombstone != deleted_at.end() && tombstone->second != 0;
  }

  std::int64_t label_of(std::int64_t id) const {
    const auto entry = labels.find(id);
    return entry == labels.end() ? QX_MISSING : entry->second;
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

  std::int64_t visible_count() const {
    std::int64_t count = 0;
    walk([&](std::int64_t) { ++count; });
    return count;
  }

  std::int64_t visible_ids(std::int64_t* out_ids) const {
    std::int64_t count = 0;
    walk([&](std::int64_t id) { out_ids[count++] = id; });
    return count;
  }

  std::int64_t match_ids(std::int64_t label, std::int64_t* out_ids) const {
    std::int64_t count = 0;
    walk([&](std::int64_t id) {
      if (label_of(id) == label) out_ids[count++] = id;
    });
    return count;
  }
};

// A base whose rows changed since it was sealed: the same changes for the library and for the plain
// maps.
struct ChangedBase {
  // Of random vectors; nothing has changed yet.
  ChangedBase(const Ids& ids, std::int64_t vector_dim, Random& random)
      : dim(vector_dim),
        index(built_index(random_floats(count_of(ids) * dim, random).data(), ids, dim)) {
    absl.base_ids = ids;
  }

  // Inserts share * n ids and deletes as many, where n is the number of base ids. Half of each are
  // ids of the base; the others are beyond it.
  void change(double share, Random& random) {
    const auto count = static_cast<std::int64_t>(share * static_cast<double>(absl.base_ids.size()));
    if (count == 0) return;
    inserted = draw_ids(count, random);
    const Ids deleted = draw_ids(count, random);
    delta_vectors = random_floats(count * dim, random);
    qx_index_insert(index.get(), delta_vectors.data(), inserted.data(), count32_of(inserted));
    qx_index_delete(index.get(), deleted.data(), count32_of(deleted));
    absl.insert(inserted);
    for (const std::int64_t id : deleted) absl.deleted_at[id] = 1;
  }

  std::int64_t dim;
  Index index;
  AbslIndex absl;
  Ids inserted;
  Floats delta_vectors{0};  // of the inserted rows, in their order

 private:
  Ids draw_ids(std::int64_t count, Random& random) const {
    const Ids& base_ids = absl.base_ids;
    const std::int64_t beyond = *std::max_element(base_ids.begin(), base_ids.end()) + 1;
    Ids drawn = sparse_ids(count - count / 2, count_of(base_ids), random);
    for (std::int64_t& id : drawn) id += beyond;
    Ids of_base = base_ids;
    random.shuffle(of_base);
    drawn.insert(drawn.end(), of_base.begin(), of_base.begin() + count / 2);
    random.shuffle(drawn);
    return drawn;
  }
};

}  // namespace bench
