// A row that is not visible, or fails the filter, costs no score: its components are on pages that
// cannot be read here, under every kernel.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

#include "internal/every_kernel.h"
#include "read/pruner.h"
#include "store/qx_index.h"
#include "support/cases.h"

namespace qx_test {
namespace {

constexpr std::int64_t kPassing = 1;
constexpr std::int64_t kFailing = 2;

// Forbids to read every page that is wholly in a piece of memory.
class Unreadable {
 public:
  Unreadable(const float* first, std::int64_t count) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto address = reinterpret_cast<std::uintptr_t>(first);
    const std::uintptr_t skipped = (page - address % page) % page;
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(first + count) / page * page;
    pages_ = reinterpret_cast<std::byte*>(const_cast<float*>(first)) + skipped;
    bytes_ = end > address + skipped ? end - address - skipped : 0;
    if (bytes_ > 0) {
      EXPECT_EQ(mprotect(pages_, bytes_, PROT_NONE), 0);
    }
  }
  Unreadable(Unreadable&& other) noexcept
      : pages_(other.pages_), bytes_(std::exchange(other.bytes_, 0)) {}
  ~Unreadable() {
    if (bytes_ > 0) mprotect(pages_, bytes_, PROT_READ | PROT_WRITE);
  }
  std::size_t bytes() const { return bytes_; }

 private:
  void* pages_;
  std::size_t bytes_;
};

// Rows by turns: `taken` of them pass and are visible, then `left` of them fail, or are not
// visible.
struct Turns {
  std::int64_t taken;
  std::int64_t left;
  bool takes(std::int64_t row) const { return row % (taken + left) < taken; }
};

enum class LeftOut { kByLabel, kByDelete, kByNewerRow };

class UnreadRows : public UnderAKernel {
 protected:
  // A base of `rows` rows, and as many rows of the delta by the same turns, under ids that follow.
  void make(std::int32_t rows, std::int32_t dim, Turns turns, LeftOut way) {
    const Ids ids = ids_from(0, rows);
    Floats vectors(static_cast<std::size_t>(rows) * static_cast<std::size_t>(dim));
    for (std::size_t i = 0; i < vectors.size(); ++i) {
      vectors[i] = static_cast<float>(i * 7919 % 1009) / 256.0f;
    }
    index_ = std::make_unique<Sealed>(dim, ids, vectors);
    insert(*index_, ids_from(rows, rows), vectors);
    const Ids candidates = ids_from(0, 2 * std::int64_t{rows});
    Ids left;
    Ids labels;
    for (const std::int64_t id : candidates) {
      const bool taken = turns.takes(id % rows);
      labels.push_back(taken || way != LeftOut::kByLabel ? kPassing : kFailing);
      if (!taken) left.push_back(id);
    }
    set_rowmeta(*index_, candidates, labels, {}, 0);
    if (way == LeftOut::kByDelete) delete_ids(*index_, left);
    if (way == LeftOut::kByNewerRow) {
      // A newer row of a base id hides the base row; delta rows are written in place.
      std::erase_if(left, [&](std::int64_t id) { return id >= rows; });
      insert(*index_, left, Floats(left.size() * static_cast<std::size_t>(dim), -1.0f));
    }
    protect_left_out(rows, dim, turns, way);
  }

  void protect_left_out(std::int64_t rows, std::int64_t dim, Turns turns, LeftOut way) {
    const QxIndex& record = *static_cast<QxIndex*>(*index_);
    for (std::int64_t row = turns.taken; row < rows; row += turns.taken + turns.left) {
      const std::int64_t count = std::min(turns.left, rows - row) * dim;
      pages_.emplace_back(record.base_vectors + row * dim, count);
      if (way != LeftOut::kByNewerRow) {
        pages_.emplace_back(record.delta_vectors.data + row * dim, count);
      }
    }
  }

  // The results of searches by every judge, which fault where they read what is left out.
  std::vector<Found> search(const Floats& query) {
    std::vector<Found> results;
    Ids visible = match_ids(*index_, has_label(kPassing));
    std::reverse(visible.begin(), visible.end());
    for (const char* const judge :
         {static_cast<const char*>(nullptr), "four bits", "eight bits", "estimates", "scores"}) {
      EXPECT_TRUE(qx::force_judge(judge));
      for (const std::uint32_t k : {1u, 10u, 300u}) {
        results.push_back(search_filtered(*index_, has_label(kPassing), query, k));
        results.push_back(search_mvcc(*index_, visible, query, k));
      }
    }
    qx::force_judge(nullptr);
    return results;
  }

  std::unique_ptr<Sealed> index_;
  std::vector<Unreadable> pages_;
};

TEST_P(UnreadRows, AreThoseThatAreNotVisibleOrFailTheFilter) {
  for (const LeftOut way : {LeftOut::kByLabel, LeftOut::kByDelete, LeftOut::kByNewerRow}) {
    for (const Turns turns : {Turns{40, 24}, Turns{170, 22}, Turns{5, 59}, Turns{64, 64}}) {
      for (const std::int32_t dim : {128, 700}) {
        make(1500, dim, turns, way);
        std::size_t unreadable = 0;
        for (const Unreadable& pages : pages_) unreadable += pages.bytes();
        // Wherever the heap places the rows, 22 of 128 floats hold one whole page; there are seven.
        EXPECT_GE(unreadable, 7u * 4096);
        const Floats query(static_cast<std::size_t>(dim), 0.5f);
        const std::vector<Found> results = search(query);
        pages_.clear();
        EXPECT_EQ(search(query), results);
        EXPECT_NE(results[3].slots.at(9).id, -1);
      }
    }
  }
}

TEST_P(UnreadRows, AreAllRowsToCallsThatListIds) {
  make(1500, 128, {40, 24}, LeftOut::kByDelete);
  const QxIndex& record = *static_cast<QxIndex*>(*index_);
  pages_.emplace_back(record.base_vectors, 1500 * 128);
  pages_.emplace_back(record.delta_vectors.data, 1500 * 128);
  EXPECT_EQ(qx_index_visible_count(*index_), std::ssize(visible_ids(*index_)));
  EXPECT_EQ(match_ids(*index_, has_label(kPassing)), visible_ids(*index_));
  EXPECT_EQ(match_ids(*index_, has_label(kFailing)), Ids());
}

INSTANTIATE_TEST_SUITE_P(Kernels, UnreadRows, testing::ValuesIn(listed_kernels()), kernel_name);

}  // namespace
}  // namespace qx_test
