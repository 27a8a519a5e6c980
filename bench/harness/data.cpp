#include "harness/data.h"

#include <cstring>
#include <numeric>

#include "harness/measure.h"
#include "store/qx_index.h"

namespace bench {
namespace {

constexpr std::size_t kLineBytes = 64;

// After this many bytes, blocks differ in speed by a few per cent only.
constexpr std::size_t kScatteredBytes = std::size_t{2} << 30;

float* line_aligned_floats(std::int64_t count) {
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(float);
  const std::size_t whole_lines = (bytes + kLineBytes - 1) / kLineBytes * kLineBytes;
  void* const block = std::aligned_alloc(kLineBytes, whole_lines);
  require(block != nullptr || bytes == 0, "there is memory for the vectors");
  return static_cast<float*>(block);
}

}  // namespace

Ids ascending_ids(std::int64_t n) {
  Ids ids(static_cast<std::size_t>(n));
  std::iota(ids.begin(), ids.end(), 0);
  return ids;
}

Ids permuted_ids(std::int64_t n, Random& random) {
  Ids ids = ascending_ids(n);
  random.shuffle(ids);
  return ids;
}

Ids sparse_ids(std::int64_t n, std::int64_t limit, Random& random) {
  std::vector<bool> taken(static_cast<std::size_t>(limit));
  Ids ids;
  ids.reserve(static_cast<std::size_t>(n));
  while (count_of(ids) < n) {
    const std::int64_t id = random.below(limit);
    if (taken[static_cast<std::size_t>(id)]) continue;
    taken[static_cast<std::size_t>(id)] = true;
    ids.push_back(id);
  }
  return ids;
}

Floats::Floats(std::int64_t count) : count_(count), values_(line_aligned_floats(count)) {}

Floats random_floats(std::int64_t count, Random& random) {
  Floats floats(count);
  std::generate_n(floats.data(), count, [&] { return random.unit(); });
  return floats;
}

void hold_scattered_pages() {
  static const std::unique_ptr<char[]> held(new char[kScatteredBytes]);
  std::memset(held.get(), 1, kScatteredBytes);
  consume(held);
}

Index empty_index(std::int64_t dim) { return Index(qx_index_new(static_cast<uint32_t>(dim), 0)); }

Index built_index(const float* vectors, const Ids& ids, std::int64_t dim) {
  Index index = empty_index(dim);
  const int32_t status =
      qx_index_build(index.get(), vectors, count_of(ids), static_cast<int32_t>(dim), ids.data(),
                     nullptr, nullptr, nullptr, 0);
  require(status == 0, "the index is built");
  return index;
}

const float* base_vectors(const Index& index) { return index->base_vectors; }

}  // namespace bench
