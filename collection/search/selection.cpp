#include "search/selection.h"

#include <algorithm>

#include "read/row_span.h"
#include "state/edit.h"

namespace qx::collection {

Restriction::Restriction(const Shape& shape, const QxSearch* search)
    : has_texts_(shape.has_texts), columns_(shape.schema.size()) {
  if (search == nullptr) return;
  if (search->filter != nullptr) predicate_ = Predicate::parse(search->filter, shape.schema);
  if (search->among != nullptr) {
    among_ = keys_of(shape, *search->among);
    std::ranges::sort(*among_);
  }
  accept_ = search->accept;
  context_ = search->accept_context;
}

bool Restriction::is_true_of(const Part& part, std::int64_t row) const {
  if (!predicate_) return true;
  std::vector<Value> values;
  for (std::size_t c = 0; c < columns_; ++c) values.push_back(part.value(row, c));
  return predicate_->is_true_of(values);
}

void Restriction::accept(const Part& part, std::int64_t first, std::int64_t count,
                         std::uint64_t* words) const {
  if (accept_ == nullptr) return;
  for (std::int64_t i = 0; i < count; i += kMaskRows) {
    for_each_bit(words[i / kMaskRows], [&](std::int64_t bit) {
      const Key key = part.key(first + i + bit);
      const QxText text = {key.text.data(), static_cast<std::int64_t>(key.text.size())};
      if (accept_(context_, key.number, has_texts_ ? &text : nullptr) == 0) {
        words[i / kMaskRows] &= ~(std::uint64_t{1} << bit);
      }
    });
  }
}

Selection::Selection(const State& state, const Restriction& restriction)
    : state_(state), restriction_(restriction) {
  if (!restriction.among()) return;
  candidates_.resize(state.parts.size());
  for (const Key& key : *restriction.among()) {
    const Location at = state.find(key);
    if (at.exists()) candidates_[at.part()].push_back(at.row());
  }
  for (std::vector<std::int64_t>& rows : candidates_) std::ranges::sort(rows);
}

Selection::Way Selection::way(std::size_t part) const {
  if (!candidates_.empty()) return Way::kCandidates;
  const PartView& view = state_.parts[part];
  return restriction_.is_empty() && view.dead == 0 ? Way::kScan : Way::kBitmap;
}

// Keeps the bits of listed rows, of which each is visible.
void Selection::keep_candidates(std::size_t part, std::int64_t first, std::int64_t count,
                                std::uint64_t* words) const {
  std::fill_n(words, (count + kMaskRows - 1) / kMaskRows, 0);
  const std::vector<std::int64_t>& rows = candidates_[part];
  for (auto row = std::ranges::lower_bound(rows, first); row != rows.end() && *row < first + count;
       ++row) {
    words[(*row - first) / kMaskRows] |= std::uint64_t{1} << (*row - first) % kMaskRows;
  }
}

std::int64_t Selection::select(std::size_t part, std::int64_t first, std::int64_t count,
                               std::uint64_t* words) const {
  const PartView& view = state_.parts[part];
  const auto selected = [&] {
    std::int64_t rows = 0;
    for (std::int64_t i = 0; i < count; i += kMaskRows) rows += count_bits(words[i / kMaskRows]);
    return rows;
  };
  if (way(part) == Way::kCandidates) {
    keep_candidates(part, first, count, words);
  } else {
    for (std::int64_t i = 0; i < count; i += kMaskRows) {
      words[i / kMaskRows] = view.mask(first + i, std::min(kMaskRows, count - i));
    }
  }
  if (restriction_.is_empty() || selected() == 0) return selected();
  if (restriction_.predicate()) view.part->filter(*restriction_.predicate(), first, count, words);
  restriction_.accept(*view.part, first, count, words);
  return selected();
}

}  // namespace qx::collection
