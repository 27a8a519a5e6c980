#include "batch/batch.h"

#include <atomic>
#include <memory>

#include "read/coded_query.h"

namespace qx::collection {

namespace {

constinit std::atomic<bool> tiles_allowed = true;

}  // namespace

const TileKernel* TileKernel::find() {
  static constexpr TileKernel kKernel;
  static const bool found = has_tiles();
  return found && tiles_allowed.load(std::memory_order_relaxed) ? &kKernel : nullptr;
}

void TileKernel::allow(bool allowed) { tiles_allowed.store(allowed, std::memory_order_relaxed); }

CodedBatch::CodedBatch(std::int64_t dim)
    : dim_(dim), row_levels_((code_row_bytes(dim) + 63) / 64 * 128) {}

bool CodedBatch::add(const float* query) {
  const auto coded = std::make_unique<CodedQuery>();
  if (!code_query(query, dim_, *coded)) return false;
  if (size_ % kQueriesTogether == 0) {
    const auto padded = static_cast<std::size_t>(size_ + kQueriesTogether);
    for (std::vector<float>* numbers : {&numbers_.factor, &numbers_.query_sum, &numbers_.fixed,
                                        &numbers_.residual_weight, &numbers_.spread_weight}) {
      numbers->resize(padded);
    }
    tiles_.resize(padded * static_cast<std::size_t>(row_levels_));
  }
  const auto at = static_cast<std::size_t>(size_);
  numbers_.factor[at] = coded->factor;
  numbers_.query_sum[at] = coded->query_sum;
  numbers_.fixed[at] = coded->fixed[static_cast<std::size_t>(CodeBits::kEight)];
  numbers_.residual_weight[at] = coded->residual_weight;
  numbers_.spread_weight[at] = coded->spread_weight;
  put_levels(*coded);
  ++size_;
  return true;
}

void CodedBatch::put_levels(const CodedQuery& query) {
  constexpr std::int64_t kTogether = 4;
  std::int8_t* const first = tiles_.data() + size_ / kTileQueries * kTileQueries * row_levels_ +
                             size_ % kTileQueries * kTogether;
  for (std::int64_t i = 0; i < row_levels_; ++i) {
    first[i / kTogether * kTogether * kTileQueries + i % kTogether] = query.levels[i];
  }
}

}  // namespace qx::collection
