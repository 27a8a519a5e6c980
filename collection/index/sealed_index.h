// Rows in an index of the engine, which are filled in place.
#pragma once

#include <new>

#include "store/base.h"
#include "store/codes.h"
#include "support/memory.h"

namespace qx::collection {

class SealedIndex {
 public:
  // Throws std::bad_alloc if there is no memory for the rows. Their ids are 0 to rows - 1.
  SealedIndex(std::int64_t rows, std::int64_t dim) : dim_(dim) {
    void* const block = try_allocate(sizeof(QxIndex));
    if (block == nullptr) throw std::bad_alloc();
    index_ = new (block) QxIndex;
    auto* const vectors =
        static_cast<float*>(try_allocate(rows * dim * std::int64_t{sizeof(float)}));
    if (vectors != nullptr && adopt_base(*index_, vectors, rows, static_cast<std::int32_t>(dim))) {
      return;
    }
    release(vectors);
    qx_index_free(index_);
    throw std::bad_alloc();
  }
  SealedIndex(const SealedIndex&) = delete;
  SealedIndex& operator=(const SealedIndex&) = delete;
  ~SealedIndex() { qx_index_free(index_); }

  // Beside what a caller keeps of its own: vectors, two tables of the engine, codes.
  static std::int64_t bytes_of(std::int64_t rows, std::int64_t dim) {
    const std::int64_t codes = is_worth_coding(rows, dim) ? rows * (dim + 6) + 4096 : 0;
    return rows * (4 * dim + 16) + codes + 1024;
  }

  const QxIndex& get() const { return *index_; }
  float* vector(std::int64_t row) const { return index_->base_vectors + row * dim_; }

  // A thread is about to fill rows `first` to `end` - 1, or is filling them.
  void expect_writes(std::int64_t first, std::int64_t end) const {
    qx::expect_writes(vector(first),
                      static_cast<std::size_t>((end - first) * dim_) * sizeof(float));
  }

  // Derives what searches need of the vectors of rows `first` to `end` - 1, which are filled.
  // Threads may do so at the same time with rows that are not of one group (kCodeGroupRows).
  void complete(std::int64_t first, std::int64_t end) { derive_rows(*index_, first, end); }

 private:
  QxIndex* index_;
  std::int64_t dim_;
};

}  // namespace qx::collection
