#include "read/listing.h"

#include "kernels/kernels.h"

namespace qx {
namespace {

// Copies the ids that a mask selects, in order, and returns how many they are.
std::int64_t compress_copy(const std::int64_t* ids, std::uint64_t mask, std::int64_t* out) {
  const std::int64_t selected = count_bits(mask);
  if (selected == kMaskRows) {
    std::copy_n(ids, kMaskRows, out);
  } else if (selected * 4 < kMaskRows) {
    for_each_bit(mask, [&](std::int64_t i) { *out++ = ids[i]; });
  } else {
    kernels().compress(ids, mask, selected, out);
  }
  return selected;
}

}  // namespace

std::int64_t count_rows(const QxIndex& index, const Filter& filter) {
  std::int64_t count = 0;
  Selection selection(index, filter);
  while (selection.next()) {
    count += selection.span().count_selected(0, selection.span().count());
  }
  return count;
}

std::int64_t list_ids(const QxIndex& index, const Filter& filter, std::int64_t* out_ids) {
  std::int64_t* next = out_ids;
  Selection selection(index, filter);
  while (selection.next()) {
    const RowSpan span = selection.span();
    for (std::int64_t offset = 0; offset < span.count(); offset += kMaskRows) {
      next += compress_copy(span.ids() + offset, span.mask(offset), next);
    }
  }
  return next - out_ids;
}

std::int64_t copy_rows(const QxIndex& index, const Filter& filter, float* out_vectors,
                       std::int64_t* out_ids) {
  const std::int64_t dim = dim_of(index);
  std::int64_t copied = 0;
  Selection selection(index, filter);
  while (selection.next()) {
    const RowSpan span = selection.span();
    span.for_each_row(0, span.count(), [&](std::int64_t i) {
      std::copy_n(vector_of(index, span.row(i), dim), dim, out_vectors + copied * dim);
      out_ids[copied++] = span.ids()[i];
    });
  }
  return copied;
}

}  // namespace qx
