#include "state/tail.h"

#include <algorithm>
#include <new>

#include "support/memory.h"

namespace qx::collection {
namespace {

std::size_t at(std::int64_t i) { return static_cast<std::size_t>(i); }

std::int64_t bytes_of(const Shape& shape) {
  const auto columns = static_cast<std::int64_t>(shape.schema.size() * sizeof(Value));
  const std::int64_t row = 4 * shape.dim + 12 + 4 + std::int64_t{sizeof(Key)} + columns;
  return Tail::capacity_of(shape) * row;
}

}  // namespace

std::int64_t Tail::capacity_of(const Shape& shape) {
  constexpr std::int64_t kMostFloats = std::int64_t{1} << 18;
  return std::clamp<std::int64_t>(kMostFloats / shape.dim / 64 * 64, 64, 4096);
}

Tail::Tail(const Shape& shape)
    : Part(capacity_of(shape)),
      shape_(shape),
      hashes_(new std::uint64_t[at(capacity_of(shape))]),
      keys_(new Key[at(capacity_of(shape))]),
      lists_(new ListNumber[at(capacity_of(shape))]),
      values_(new Value[at(capacity_of(shape)) * shape.schema.size()]) {
  share = {shape.budget, bytes_of(shape)};
  const std::int64_t floats = capacity_of(shape) * shape.dim;
  vectors_ = static_cast<float*>(try_allocate(floats * std::int64_t{sizeof(float)}));
  if (vectors_ == nullptr) throw std::bad_alloc();
}

Tail::~Tail() { release(vectors_); }

Key Tail::key(std::int64_t row) const { return keys_[at(row)]; }

Value Tail::value(std::int64_t row, std::size_t column) const {
  return values_[at(row) * shape_.schema.size() + column];
}

std::int64_t Tail::find(const Key& wanted, std::int64_t rows, std::uint32_t seen) const {
  const std::uint64_t hash = hash_of(wanted);
  for (std::int64_t row = rows - 1; row >= 0; --row) {
    if (hashes_[at(row)] != hash || keys_[at(row)] != wanted) continue;
    if (liveness.is_alive(row, seen)) return row;
  }
  return -1;
}

void Tail::filter(const Predicate& predicate, std::int64_t first, std::int64_t count,
                  std::uint64_t* words) const {
  const std::size_t columns = shape_.schema.size();
  for (std::int64_t i = 0; i < count; ++i) {
    const std::uint64_t bit = std::uint64_t{1} << i % 64;
    if ((words[i / 64] & bit) == 0) continue;
    const Value* const values = values_.get() + at(first + i) * columns;
    if (!predicate.is_true_of({values, columns})) words[i / 64] &= ~bit;
  }
}

std::string_view Tail::keep(std::string_view text) {
  if (text.empty()) return {};
  std::string& kept = texts_.emplace_back();
  kept.reserve(text.size());
  share.grow(std::ssize(text));
  return kept.append(text);  // cannot fail, so that its size is what was counted
}

void Tail::forget_texts_beyond(std::size_t texts) noexcept {
  for (; texts_.size() > texts; texts_.pop_back()) share.shrink(std::ssize(texts_.back()));
}

void Tail::write(std::int64_t row, const Key& key, const float* vector,
                 const std::vector<Value>& values) {
  keep_vector(shape_.metric, vector, shape_.dim, vectors_ + row * shape_.dim);
  hashes_[at(row)] = hash_of(key);
  keys_[at(row)] = {key.number, keep(key.text)};
  for (std::size_t c = 0; c < values.size(); ++c) {
    const auto* const text = std::get_if<std::string_view>(&values[c]);
    values_[at(row) * values.size() + c] = text == nullptr ? values[c] : Value(keep(*text));
  }
}

}  // namespace qx::collection
