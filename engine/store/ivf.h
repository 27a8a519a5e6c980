// IVF structures under their keys, stored as the host gives them. It knows nothing of the base.
#pragma once

#include "store/qx_index.h"

namespace qx {

// The structure of a key, or null. A negative position means none.
template <typename Index>
auto* find_ivf(Index& index, std::int64_t key) {
  const std::int64_t position = index.ivf_map.get(key, -1);
  return position < 0 ? nullptr : &index.ivf_list.at(position);
}

// Attaches a structure under a key, in place of the one that the key has. Returns its position.
std::int64_t attach_ivf(QxIndex& index, std::int64_t key, QxIvf&& ivf);

// Releases all structures and their keys.
void release_ivf(QxIndex& index);

}  // namespace qx
