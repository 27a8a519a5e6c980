// A segment: rows in ascending order of their ids, in an index of the engine. Arrival there is the
// order of ids, so the engine's rule for equal scores is the collection's.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "index/sealed_index.h"
#include "state/extents.h"
#include "state/part.h"

namespace qx::collection {

class Segment final : public Part {
 public:
  Key key(std::int64_t row) const override;
  const float* vector(std::int64_t row) const override;
  Value value(std::int64_t row, std::size_t column) const override;
  std::int64_t find(const Key& wanted, std::int64_t rows, std::uint32_t seen) const override;
  void filter(const Predicate& predicate, std::int64_t first, std::int64_t count,
              std::uint64_t* words) const override;

  // The first row whose id is not below.
  std::int64_t lower_bound(const Key& wanted) const;
  std::int64_t rows() const { return rows_; }
  const QxIndex& index() const { return index_.get(); }
  const Extents& extents() const { return extents_; }
  // Until its codes are made it may lack them (SealedIndex::hide_codes).
  bool lacks_codes() const { return index_.hides_codes(); }
  // Makes them; check() is called now and then, and may throw. By one thread at a time.
  void make_codes(const std::function<void()>& check);
  // half_norm_below() of each row, with Metric::kEuclidean.
  const float* half_norms() const { return half_norms_.get(); }

 private:
  friend class SegmentBuilder;
  Segment(const Shape& shape, std::int64_t rows);
  static SealedIndex counted_index(const Shape& shape, std::int64_t rows, Budget::Share& share);

  std::int64_t rows_;
  SealedIndex index_;
  Extents extents_;
  std::unique_ptr<float[]> half_norms_;
  std::vector<std::int64_t> numbers_;       // of ids that are numbers
  std::vector<std::uint64_t> text_starts_;  // of ids that are texts: rows + 1, in texts_
  std::string texts_;
  std::vector<Column> columns_;
};

// Use: add every id, fill and complete every vector, add every column, in any order; finish.
class SegmentBuilder {
 public:
  // Throws std::bad_alloc if there is no memory for the rows.
  SegmentBuilder(const Shape& shape, std::int64_t rows);
  SegmentBuilder(const SegmentBuilder&) = delete;

  void add_id(const Key& key);  // ascending
  // Or all ids at once: arrays to be filled, of texts where each ends and their bytes.
  struct IdArrays {
    std::vector<std::int64_t>& numbers;
    std::span<std::uint64_t> text_ends;
    std::string& texts;
  };
  IdArrays all_ids(std::int64_t text_bytes);

  float* vector(std::int64_t row);
  // Leaves codes to Segment::make_codes(). Before the first row is complete.
  void leave_codes_out() { segment_->index_.hide_codes(); }
  // A thread is about to fill rows `first` to `end` - 1, or is filling them.
  void expect_writes(std::int64_t first, std::int64_t end) {
    segment_->index_.expect_writes(first, end);
  }
  // Derives what searches need of the vectors of rows `first` to `end` - 1, which are filled.
  // Threads may do so at the same time with rows that are not of one group (kCodeGroupRows).
  void complete(std::int64_t first, std::int64_t end);
  void add_column(Column column);
  std::shared_ptr<Segment> finish();  // a draft, until a state has it

 private:
  const Shape& shape_;
  std::shared_ptr<Segment> segment_;
};

}  // namespace qx::collection
