// How many bytes the rows of a collection take, and may take.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace qx::collection {

class Budget {
 public:
  // No limit if it is 0.
  explicit Budget(std::int64_t limit)
      : limit_(limit == 0 ? std::numeric_limits<std::int64_t>::max() : limit) {}

  std::int64_t used() const { return used_.load(std::memory_order_relaxed); }

  // Bytes that are counted for as long as the object lives.
  class Share {
   public:
    Share() = default;
    // Throws std::bad_alloc if that is beyond the limit.
    Share(std::shared_ptr<Budget> budget, std::int64_t bytes) : budget_(std::move(budget)) {
      grow(bytes);
    }
    Share(Share&& other) noexcept
        : budget_(other.budget_), bytes_(std::exchange(other.bytes_, 0)) {}
    Share& operator=(Share&& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(bytes_, other.bytes_);
      return *this;
    }
    ~Share() {
      if (bytes_ != 0) budget_->used_.fetch_sub(bytes_, std::memory_order_relaxed);
    }
    void grow(std::int64_t bytes) {
      if (bytes > budget_->limit_ - budget_->used_.fetch_add(bytes, std::memory_order_relaxed)) {
        budget_->used_.fetch_sub(bytes, std::memory_order_relaxed);
        throw std::bad_alloc();
      }
      bytes_ += bytes;
    }
    void shrink(std::int64_t bytes) noexcept {
      budget_->used_.fetch_sub(bytes, std::memory_order_relaxed);
      bytes_ -= bytes;
    }

   private:
    std::shared_ptr<Budget> budget_;
    std::int64_t bytes_ = 0;
  };

 private:
  std::int64_t limit_;
  std::atomic<std::int64_t> used_ = 0;
};

}  // namespace qx::collection
