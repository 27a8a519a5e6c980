// Rows in an index of the engine, which are filled in place.
#pragma once

#include <atomic>
#include <new>
#include <utility>

#include "store/base.h"
#include "store/codes.h"
#include "support/memory.h"

namespace qx::collection {

class SealedIndex {
 public:
  // Throws std::bad_alloc if there is no memory for the rows. Their ids are 0 to rows - 1.
  SealedIndex(std::int64_t rows, std::int64_t dim) : dim_(dim) {
    index_ = new_index();
    seen_.store(index_);
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
  ~SealedIndex() {
    if (coded_ != nullptr) {
      coded_->base_vectors = nullptr;
      coded_->base_ids = coded_->id_to_row = nullptr;
      qx_index_free(coded_);
    }
    qx_index_free(index_);
  }

  // Beside what a caller keeps of its own: vectors, two tables of the engine, codes.
  static std::int64_t bytes_of(std::int64_t rows, std::int64_t dim) {
    const std::int64_t codes = is_worth_coding(rows, dim) ? rows * (dim + 6) + 4096 : 0;
    return rows * (4 * dim + 16) + codes + 1024;
  }

  const QxIndex& get() const { return *seen_.load(std::memory_order_acquire); }
  float* vector(std::int64_t row) const { return index_->base_vectors + row * dim_; }

  // A thread is about to fill rows `first` to `end` - 1, or is filling them.
  void expect_writes(std::int64_t first, std::int64_t end) const {
    qx::expect_writes(vector(first),
                      static_cast<std::size_t>((end - first) * dim_) * sizeof(float));
  }

  // Derives what searches need of the vectors of rows `first` to `end` - 1, which are filled.
  // Threads may do so at the same time with rows that are not of one group (kCodeGroupRows).
  void complete(std::int64_t first, std::int64_t end) { derive_rows(*index_, first, end); }

  // Codes take as long as all else that is derived, and searches find the same without, more
  // slowly. So they can be made after rows are complete: hidden before, coded by one thread, then
  // shown to searches that begin from then on.
  void hide_codes() {
    if (index_->base_codes.rows == 0) return;
    coded_ = new_index();
    coded_->base_codes = std::exchange(index_->base_codes, {});
  }
  bool hides_codes() const { return coded_ != nullptr && &get() == index_; }
  void code(std::int64_t first, std::int64_t end) const {
    code_range(coded_->base_codes, index_->base_vectors, first, end);
  }
  void show_codes() {
    coded_->dim = index_->dim;
    coded_->n_base = index_->n_base;
    coded_->sealed = index_->sealed;
    coded_->base_vectors = index_->base_vectors;
    coded_->base_ids = index_->base_ids;
    coded_->id_to_row = index_->id_to_row;
    coded_->max_base_id = index_->max_base_id;
    coded_->base_magnitude = index_->base_magnitude;
    seen_.store(coded_, std::memory_order_release);
  }

 private:
  static QxIndex* new_index() {
    void* const block = try_allocate(sizeof(QxIndex));
    if (block == nullptr) throw std::bad_alloc();
    return new (block) QxIndex;
  }

  QxIndex* index_;
  QxIndex* coded_ = nullptr;  // whose vectors and tables are those of index_
  std::atomic<const QxIndex*> seen_;
  std::int64_t dim_;
};

}  // namespace qx::collection
