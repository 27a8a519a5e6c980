// A tail: the latest rows, in the order in which they came. One writer appends; a reader sees no
// more rows than the state says that it took.
#pragma once

#include <deque>
#include <string>

#include "lists/lists.h"
#include "state/part.h"

namespace qx::collection {

class Tail final : public Part {
 public:
  explicit Tail(const Shape& shape);
  ~Tail() override;
  Key key(std::int64_t row) const override;
  const float* vector(std::int64_t row) const override { return vectors_ + row * shape_.dim; }
  Value value(std::int64_t row, std::size_t column) const override;
  std::int64_t find(const Key& wanted, std::int64_t rows, std::uint32_t seen) const override;
  void filter(const Predicate& predicate, std::int64_t first, std::int64_t count,
              std::uint64_t* words) const override;

  // How many rows a tail of this shape has room for: few enough that scoring all of them is quick.
  static std::int64_t capacity_of(const Shape& shape);

  // Writes row `row`, of the host's vector, which no state has yet. A writer that fails may write
  // it again.
  void write(std::int64_t row, const Key& key, const float* vector,
             const std::vector<Value>& values);

  // The lists of the rows, in a state that has lists; of rows that no state has yet, to be set.
  ListNumber* lists() { return lists_.get(); }
  const ListNumber* lists() const { return lists_.get(); }

  // The texts that rows took, and what a writer that fails does with those it added.
  std::size_t texts() const { return texts_.size(); }
  void forget_texts_beyond(std::size_t texts) noexcept;

 private:
  std::string_view keep(std::string_view text);

  const Shape& shape_;
  float* vectors_;
  std::unique_ptr<std::uint64_t[]> hashes_;
  std::unique_ptr<Key[]> keys_;
  std::unique_ptr<ListNumber[]> lists_;
  std::unique_ptr<Value[]> values_;  // row after row
  std::deque<std::string> texts_;    // of keys and values; the writer's
};

}  // namespace qx::collection
