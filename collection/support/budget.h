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

  // In the child of a fork: what was a draft is nobody's any more. Its memory is lost, since the
  // thread may have left it at any point, but it is not counted.
  void forget_drafts() noexcept { used_ -= drafts_.exchange(0); }

  // Bytes that are counted for as long as the object lives.
  class Share {
   public:
    Share() = default;
    // Throws std::bad_alloc if that is beyond the limit.
    Share(std::shared_ptr<Budget> budget, std::int64_t bytes) : budget_(std::move(budget)) {
      grow(bytes);
    }
    Share& operator=(Share&& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(bytes_, other.bytes_);
      std::swap(is_draft_, other.is_draft_);
      return *this;
    }
    ~Share() {
      if (bytes_ != 0) shrink(bytes_);
    }
    std::int64_t bytes() const { return bytes_; }

    // A draft is kept by nothing but the thread that works at it.
    void set_draft(bool is_draft) noexcept {
      if (is_draft != is_draft_) budget_->drafts_ += is_draft ? bytes_ : -bytes_;
      is_draft_ = is_draft;
    }
    void grow(std::int64_t bytes) {
      if (bytes > budget_->limit_ - budget_->used_.fetch_add(bytes, std::memory_order_relaxed)) {
        budget_->used_.fetch_sub(bytes, std::memory_order_relaxed);
        throw std::bad_alloc();
      }
      if (is_draft_) budget_->drafts_ += bytes;
      bytes_ += bytes;
    }
    void shrink(std::int64_t bytes) noexcept {
      if (is_draft_) budget_->drafts_ -= bytes;
      budget_->used_.fetch_sub(bytes, std::memory_order_relaxed);
      bytes_ -= bytes;
    }

   private:
    std::shared_ptr<Budget> budget_;
    std::int64_t bytes_ = 0;
    bool is_draft_ = false;
  };

 private:
  std::int64_t limit_;
  std::atomic<std::int64_t> used_ = 0;
  std::atomic<std::int64_t> drafts_ = 0;  // of them
};

}  // namespace qx::collection
