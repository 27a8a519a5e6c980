// IVF structures under their keys, stored as the host gives them. It knows nothing of the base.
#pragma once

#include <cstdint>

#include "store/qx_index.h"

namespace qx {

// The structure of a key, or null. A negative position means none.
const QxIvf* find_ivf(const QxIndex& index, std::int64_t key);
QxIvf* find_ivf(QxIndex& index, std::int64_t key);

// Attaches a structure under a key, in place of the one that the key has.
void attach_ivf(QxIndex& index, std::int64_t key, QxIvf&& ivf);

// Releases all structures and their keys.
void release_ivf(QxIndex& index);

}  // namespace qx
