#include "interface/results.h"

#include <algorithm>

namespace qx::collection {
namespace {

template <typename T>
T or_zero(const Value& value) {
  const T* const held = std::get_if<T>(&value);
  return held == nullptr ? T() : *held;
}

}  // namespace

void OwnedTexts::add(std::string_view text) {
  bytes_.append(text);
  ends_.push_back(bytes_.size());
}

const QxText* OwnedTexts::pointers() {
  std::size_t start = 0;
  for (const std::size_t end : ends_) {
    texts_.push_back({bytes_.data() + start, static_cast<std::int64_t>(end - start)});
    start = end;
  }
  return texts_.data();
}

OwnedHits::OwnedHits(const State& state, const Shape& shape,
                     const std::vector<std::vector<Hit>>& hits, std::int64_t slots)
    : QxHits{} {
  n_queries = std::ssize(hits);
  k = slots;
  const auto width = static_cast<std::size_t>(slots);
  scores_.resize(hits.size() * width);
  if (!shape.has_texts) ids_.resize(scores_.size());
  for (std::size_t q = 0; q < hits.size(); ++q) {
    counts_.push_back(std::ssize(hits[q]));
    for (std::size_t i = 0; i < width; ++i) {
      const bool is_hit = i < hits[q].size();
      const Key key = is_hit ? state.key(hits[q][i].at) : Key{};
      scores_[q * width + i] = is_hit ? score_given_out(shape.metric, hits[q][i].score) : 0;
      if (shape.has_texts) {
        texts_.add(key.text);
      } else {
        ids_[q * width + i] = key.number;
      }
    }
  }
  counts = counts_.data();
  scores = scores_.data();
  texts = shape.has_texts ? texts_.pointers() : nullptr;
  ids = shape.has_texts ? nullptr : ids_.data();
}

void OwnedRows::OwnedColumn::add(ColumnType type, const Value& value) {
  nulls.push_back(std::holds_alternative<std::monostate>(value) ? 1 : 0);
  switch (type) {
    case ColumnType::kInteger:
      return integers.push_back(or_zero<std::int64_t>(value));
    case ColumnType::kReal:
      return reals.push_back(or_zero<double>(value));
    case ColumnType::kBoolean:
      return booleans.push_back(or_zero<bool>(value) ? 1 : 0);
    case ColumnType::kText:
      return texts.add(or_zero<std::string_view>(value));
  }
}

QxValues OwnedRows::OwnedColumn::values(ColumnType type) {
  QxValues all = {};
  all.nulls = nulls.data();
  if (type == ColumnType::kInteger) all.integers = integers.data();
  if (type == ColumnType::kReal) all.reals = reals.data();
  if (type == ColumnType::kBoolean) all.booleans = booleans.data();
  if (type == ColumnType::kText) all.texts = texts.pointers();
  return all;
}

OwnedRows::OwnedRows(const State& state, const Shape& shape, const std::vector<Key>& keys,
                     const std::vector<Location>& places)
    : QxRows{}, owned_(shape.schema.size()) {
  const auto width = static_cast<std::size_t>(shape.dim);
  vectors_.resize(keys.size() * width);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const Location at = places[i];
    const bool is_found = at.exists();
    found_.push_back(is_found ? 1 : 0);
    if (shape.has_texts) {
      texts_.add(keys[i].text);
    } else {
      ids_.push_back(keys[i].number);
    }
    if (is_found) std::copy_n(state.part(at).vector(at.row()), width, vectors_.data() + i * width);
    for (std::size_t c = 0; c < owned_.size(); ++c) {
      owned_[c].add(shape.schema[c].type, is_found ? state.part(at).value(at.row(), c) : Value());
    }
  }
  for (std::size_t c = 0; c < owned_.size(); ++c) {
    columns_.push_back(owned_[c].values(shape.schema[c].type));
  }
  count = std::ssize(keys);
  dim = shape.dim;
  n_columns = static_cast<std::int32_t>(shape.schema.size());
  ids = shape.has_texts ? nullptr : ids_.data();
  texts = shape.has_texts ? texts_.pointers() : nullptr;
  vectors = vectors_.data();
  columns = columns_.data();
  found = found_.data();
}

}  // namespace qx::collection
