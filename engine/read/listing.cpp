#include "read/listing.h"

#include <cstring>

#include "kernels/kernels.h"
#include "read/selection.h"
#include "store/delta.h"
#include "support/bits.h"

namespace qx {
namespace {

// Calls visit(span, offset, mask) for every mask of a selection.
template <typename Visit>
void for_each_mask(const QxIndex& index, const Filter& filter, Visit visit) {
  Selection selection(index, filter);
  while (selection.next()) {
    for (std::int64_t offset = 0; offset < selection.count(); offset += kMaskRows) {
      visit(selection, offset, selection.mask(offset));
    }
  }
}

// Copies the ids that a mask selects, in order, and returns how many they are.
std::int64_t compress_copy(const std::int64_t* ids, std::uint64_t mask, std::int64_t* out) {
  const std::int64_t selected = count_bits(mask);
  if (selected == kMaskRows) {
    std::memcpy(out, ids, kMaskRows * sizeof(*ids));
  } else if (selected * 4 < kMaskRows) {
    for_each_bit(mask, [&](std::int64_t i) { *out++ = ids[i]; });
  } else {
    kernels().compress(ids, mask, selected, out);
  }
  return selected;
}

const float* vector_of(const QxIndex& index, bool in_delta, std::int64_t row) {
  return in_delta ? delta_vector(index, row) : base_vector(index, row);
}

}  // namespace

std::int64_t count_rows(const QxIndex& index, const Filter& filter) {
  std::int64_t count = 0;
  for_each_mask(index, filter, [&](const Selection&, std::int64_t, std::uint64_t mask) {
    count += count_bits(mask);
  });
  return count;
}

std::int64_t list_ids(const QxIndex& index, const Filter& filter, std::int64_t* out_ids) {
  std::int64_t* next = out_ids;
  const auto list = [&](const Selection& span, std::int64_t offset, std::uint64_t mask) {
    next += compress_copy(span.ids() + offset, mask, next);
  };
  for_each_mask(index, filter, list);
  return next - out_ids;
}

std::int64_t copy_rows(const QxIndex& index, const Filter& filter, float* out_vectors,
                       std::int64_t* out_ids) {
  const std::int64_t dim = dim_of(index);
  std::int64_t copied = 0;
  const auto copy = [&](const Selection& span, std::int64_t offset, std::uint64_t mask) {
    for_each_bit(mask, [&](std::int64_t i) {
      out_ids[copied] = span.ids()[offset + i];
      if (dim > 0) {
        const std::int64_t row = span.first() + offset + i;
        std::memcpy(out_vectors + copied * dim, vector_of(index, span.in_delta(), row),
                    static_cast<std::size_t>(dim) * sizeof(float));
      }
      ++copied;
    });
  };
  for_each_mask(index, filter, copy);
  return copied;
}

}  // namespace qx
