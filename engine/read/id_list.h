// Lists of ids as a source of a scan: candidates of a host, and the members of IVF lists.
#pragma once

#include <cstdint>

#include "read/scan.h"

namespace qx {

// Adds the visible rows of listed ids, in the order of the list. Ids without one are skipped.
void add_visible_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count,
                      Scan& scan);

// Adds the base rows of listed ids, in the order of the list. Ids without one are skipped.
void add_base_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count, Scan& scan);

}  // namespace qx
