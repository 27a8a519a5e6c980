#include "store/base.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <numeric>

#include "store/codes.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace qx {
namespace {

// The largest number of rows and of elements of a base; its ids are below it.
constexpr std::int64_t kBaseLimit = std::int64_t{1} << 40;

bool is_within_limits(const BaseInput& input) {
  std::int64_t elements = 0;
  return input.dim >= 0 && input.n_parts >= 0 && input.n >= 0 && input.n <= kBaseLimit &&
         !__builtin_mul_overflow(input.n, std::int64_t{input.dim}, &elements) &&
         elements <= kBaseLimit;
}

// Finds the largest id, -1 without ids. Returns false if an id is outside the limits.
bool find_max_id(const std::int64_t* ids, std::int64_t n, std::int64_t* max_id) {
  *max_id = -1;
  for (std::int64_t r = 0; r < n; ++r) {
    if (ids[r] < 0 || ids[r] >= kBaseLimit) return false;
    *max_id = std::max(*max_id, ids[r]);
  }
  return true;
}

// A new block with a copy of `count` elements; null, without reading, for none.
template <typename T>
T* copy_of(const T* source, std::int64_t count, decltype(allocate)& new_block = allocate) {
  auto* const copy = static_cast<T*>(new_block(count, sizeof(T)));
  std::copy_n(source, count, copy);
  return copy;
}

// The largest magnitude of `count` floats, NaNs aside.
float largest_magnitude(const float* floats, std::int64_t count) {
  constexpr std::int64_t kLanes = 16;  // independent maxima, which compilers turn into SIMD
  float largest[kLanes] = {};
  const auto update = [&](std::int64_t lane, float value) {
    const float magnitude = std::abs(value);
    largest[lane] = magnitude > largest[lane] ? magnitude : largest[lane];
  };
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (std::int64_t lane = 0; lane < kLanes; ++lane) update(lane, floats[i + lane]);
  }
  for (; i < count; ++i) update(0, floats[i]);
  return *std::max_element(largest, largest + kLanes);
}

// The table from ids to their last rows. Counts the rows that are not the last of their id.
std::int64_t* build_id_to_row(const BaseInput& input, std::int64_t max_id,
                              std::int64_t* duplicates) {
  auto* const id_to_row = static_cast<std::int64_t*>(allocate(max_id + 1, sizeof(std::int64_t)));
  std::fill_n(id_to_row, max_id + 1, -1);
  for (std::int64_t r = 0; r < input.n; ++r) {
    *duplicates += id_to_row[input.ids[r]] >= 0 ? 1 : 0;
    id_to_row[input.ids[r]] = r;
  }
  return id_to_row;
}

Array<std::int64_t> find_duplicate_rows(const QxIndex& index, std::int64_t count) {
  auto rows = Array<std::int64_t>::of_length(count);
  std::int64_t found = 0;
  for (std::int64_t r = 0; found < count; ++r) {
    if (index.id_to_row[index.base_ids[r]] != r) rows.data[found++] = r;
  }
  return rows;
}

// Before derive_rows().
void begin_deriving(QxIndex& index) {
  const std::int64_t dim = dim_of(index);
  index.base_magnitude = 0;
  release_codes(index.base_codes);
  if (is_worth_coding(index.n_base, dim)) begin_codes(index.base_codes, index.n_base, dim);
}

// A new block of the numbers from 0 to count - 1; null without memory for it.
std::int64_t* try_count(std::int64_t count) {
  auto* const numbers = static_cast<std::int64_t*>(try_allocate(count * 8));
  if (numbers != nullptr) std::iota(numbers, numbers + count, std::int64_t{0});
  return numbers;
}

}  // namespace

bool adopt_base(QxIndex& index, float* vectors, std::int64_t n, std::int32_t dim) {
  QX_ASSERT(index.sealed == 0 && n >= 0 && dim >= 0);
  std::int64_t* const ids = try_count(n);
  std::int64_t* const id_to_row = try_count(n);
  if (n > 0 && (ids == nullptr || id_to_row == nullptr)) {
    release(ids);
    release(id_to_row);
    return false;
  }
  index.base_vectors = vectors;
  index.base_ids = ids;
  index.id_to_row = id_to_row;
  index.max_base_id = n - 1;
  index.dim = static_cast<std::uint32_t>(dim);
  index.n_base = n;
  index.sealed = 1;
  begin_deriving(index);
  return true;
}

void derive_rows(QxIndex& index, std::int64_t first, std::int64_t end) {
  const std::int64_t dim = dim_of(index);
  const std::atomic_ref magnitude(index.base_magnitude);
  in_default_fp_environment([&] {
    const float largest = largest_magnitude(index.base_vectors + first * dim, (end - first) * dim);
    float known = magnitude.load();
    while (known < largest && !magnitude.compare_exchange_weak(known, largest)) continue;
  });
  code_range(index.base_codes, index.base_vectors, first, end);
}

bool build_base(QxIndex& index, const BaseInput& input) {
  std::int64_t max_id = -1;
  if (!is_within_limits(input) || !find_max_id(input.ids, input.n, &max_id)) return false;
  const std::int64_t n_floats = input.n * input.dim;
  std::int64_t duplicates = 0;
  index.base_vectors = copy_of(input.vectors, n_floats, allocate_cache_aligned);
  index.base_ids = copy_of(input.ids, input.n);
  index.part_keys = copy_of(input.part_keys, input.n_parts);
  index.part_starts = copy_of(input.part_starts, input.n_parts);
  index.part_sizes = copy_of(input.part_sizes, input.n_parts);
  index.id_to_row = build_id_to_row(input, max_id, &duplicates);
  index.max_base_id = max_id;
  index.dim = static_cast<std::uint32_t>(input.dim);
  index.n_base = input.n;
  index.sealed = 1;
  index.n_parts = input.n_parts;
  index.duplicate_rows = find_duplicate_rows(index, duplicates);
  begin_deriving(index);
  derive_rows(index, 0, index.n_base);
  return true;
}

std::int32_t find_partition(const QxIndex& index, std::int64_t key) {
  std::int32_t low = 0;
  std::int32_t high = index.n_parts - 1;
  while (low <= high) {
    const std::int32_t middle = low + (high - low) / 2;
    if (index.part_keys[middle] == key) return middle;
    if (index.part_keys[middle] < key) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return -1;
}

}  // namespace qx
