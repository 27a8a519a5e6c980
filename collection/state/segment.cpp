#include "state/segment.h"

#include <algorithm>

#include "support/fp_environment.h"

namespace qx::collection {
namespace {

std::size_t at(std::int64_t i) { return static_cast<std::size_t>(i); }

// Beside what the index takes: ids, deaths, extents, norms.
std::int64_t bytes_of(const Shape& shape, std::int64_t rows) {
  const std::int64_t norms = shape.metric == Metric::kEuclidean ? 4 : 0;
  return SealedIndex::bytes_of(rows, shape.dim) + rows * (4 + 8 + norms) +
         Extents::bytes_of(rows, shape.dim);
}

}  // namespace

// The bytes are counted before there is memory for them.
SealedIndex Segment::counted_index(const Shape& shape, std::int64_t rows, Budget::Share& share) {
  share = {shape.budget, 0};
  share.set_draft(true);
  share.grow(bytes_of(shape, rows));
  return {rows, shape.dim};
}

Segment::Segment(const Shape& shape, std::int64_t rows)
    : Part(rows),
      rows_(rows),
      index_(counted_index(shape, rows, share)),
      extents_(rows, shape.dim) {}

Key Segment::key(std::int64_t row) const {
  if (text_starts_.empty()) return {numbers_[at(row)], {}};
  const std::uint64_t start = text_starts_[at(row)];
  return {0, std::string_view(texts_).substr(start, text_starts_[at(row) + 1] - start)};
}

const float* Segment::vector(std::int64_t row) const { return index_.vector(row); }

Value Segment::value(std::int64_t row, std::size_t column) const {
  return columns_[column].at(row);
}

std::int64_t Segment::lower_bound(const Key& wanted) const {
  std::int64_t low = 0;
  for (std::int64_t count = rows_; count > 0;) {
    const std::int64_t half = count / 2;
    const bool below = key(low + half) < wanted;
    low = below ? low + half + 1 : low;
    count = below ? count - half - 1 : half;
  }
  return low;
}

std::int64_t Segment::find(const Key& wanted, std::int64_t, std::uint32_t seen) const {
  const std::int64_t row = lower_bound(wanted);
  const bool found = row < rows_ && key(row) == wanted && liveness.is_alive(row, seen);
  return found ? row : -1;
}

void Segment::filter(const Predicate& predicate, std::int64_t first, std::int64_t count,
                     std::uint64_t* words) const {
  std::vector<std::uint64_t> passing(at((count + 63) / 64));
  predicate.evaluate(columns_, first, count, passing.data());
  for (std::size_t i = 0; i < passing.size(); ++i) words[i] &= passing[i];
}

void Segment::make_codes(const std::function<void()>& check) {
  constexpr std::int64_t kRowsAtOnce = 64 * kCodeGroupRows;
  for (std::int64_t row = 0; row < rows_; row += kRowsAtOnce) {
    check();
    index_.code(row, std::min(row + kRowsAtOnce, rows_));
  }
  index_.show_codes();
}

SegmentBuilder::SegmentBuilder(const Shape& shape, std::int64_t rows)
    : shape_(shape), segment_(new Segment(shape, rows)) {
  if (shape.metric == Metric::kEuclidean) segment_->half_norms_.reset(new float[at(rows)]);
  if (shape.has_texts) {
    segment_->text_starts_.reserve(at(rows) + 1);
    segment_->text_starts_.push_back(0);
    segment_->share.grow(8);
  } else {
    segment_->numbers_.reserve(at(rows));
  }
}

void SegmentBuilder::add_id(const Key& key) {
  if (!shape_.has_texts) return segment_->numbers_.push_back(key.number);
  segment_->texts_.append(key.text);
  segment_->text_starts_.push_back(segment_->texts_.size());
}

SegmentBuilder::IdArrays SegmentBuilder::all_ids(std::int64_t text_bytes) {
  segment_->texts_.resize(at(text_bytes));
  if (shape_.has_texts) segment_->text_starts_.resize(at(segment_->rows_) + 1);
  if (!shape_.has_texts) segment_->numbers_.resize(at(segment_->rows_));
  const std::span<std::uint64_t> starts(segment_->text_starts_);
  return {segment_->numbers_, starts.subspan(starts.empty() ? 0 : 1), segment_->texts_};
}

float* SegmentBuilder::vector(std::int64_t row) { return segment_->index_.vector(row); }

void SegmentBuilder::complete(std::int64_t first, std::int64_t end) {
  segment_->index_.complete(first, end);
  segment_->extents_.add(vector(0), first, end);
  if (segment_->half_norms_ == nullptr) return;
  in_default_fp_environment([&] {
    for (std::int64_t row = first; row < end; ++row) {
      segment_->half_norms_[at(row)] = half_norm_below(vector(row), shape_.dim);
    }
  });
}

void SegmentBuilder::add_column(Column column) {
  segment_->share.grow(column.bytes());
  segment_->columns_.push_back(std::move(column));
}

std::shared_ptr<Segment> SegmentBuilder::finish() {
  segment_->texts_.shrink_to_fit();
  segment_->share.grow(std::ssize(segment_->texts_));
  return std::move(segment_);
}

}  // namespace qx::collection
