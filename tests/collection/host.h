// What a host passes to a collection, and comparisons of what it gets with the model, by bits.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>

#include "collection/model.h"
#include "qx_collection.h"

namespace qx_test {

// What a collection is, as a host says it.
struct Schema {
  std::int32_t dim = 1;
  bool has_texts = false;
  std::vector<std::string> names = {};
  std::vector<std::int32_t> types = {};
  Metric metric = Metric::kInnerProduct;

  QxCollection* create(QxOptions options = {}) const {
    std::vector<QxColumn> columns;
    for (std::size_t c = 0; c < names.size(); ++c) columns.push_back({names[c].c_str(), types[c]});
    options.dim = dim;
    options.id_kind = has_texts ? QX_TEXTS : QX_NUMBERS;
    options.columns = columns.data();
    options.n_columns = static_cast<std::int32_t>(columns.size());
    options.metric = static_cast<std::int32_t>(metric);
    QxCollection* made = nullptr;
    EXPECT_EQ(qx_collection_new(&options, &made), QX_OK) << qx_collection_message();
    return made;
  }
};

struct Free {
  void operator()(QxCollection* collection) const { qx_collection_free(collection); }
  void operator()(QxView* view) const { qx_view_free(view); }
  void operator()(QxHits* hits) const { qx_hits_free(hits); }
  void operator()(QxRows* rows) const { qx_rows_free(rows); }
  void operator()(char* text) const { qx_text_free(text); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

inline QxText text_of(const std::string& text) {
  return {text.data(), static_cast<std::int64_t>(text.size())};
}

// The ids must live as long.
class IdArrays {
 public:
  IdArrays(const Schema& schema, const std::vector<Id>& ids) {
    for (const Id& id : ids) {
      numbers_.push_back(id.number);
      texts_.push_back(text_of(id.text));
    }
    ids_ = {std::ssize(ids), schema.has_texts ? nullptr : numbers_.data(),
            schema.has_texts ? texts_.data() : nullptr};
  }
  IdArrays(const Schema&, std::vector<Id>&&) = delete;
  IdArrays(const IdArrays&) = delete;
  const QxIds& get() const { return ids_; }

 private:
  std::vector<std::int64_t> numbers_;
  std::vector<QxText> texts_;
  QxIds ids_;
};

// Vectors and values of rows, which must live as long. A column without values is a null array, and
// one without NULLs has none marked.
class RowArrays {
 public:
  RowArrays(const Schema& schema, const std::vector<Floats>& vectors,
            const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      const Floats& vector = vectors[row.vector];
      floats_.insert(floats_.end(), vector.begin(), vector.end());
    }
    columns_.reserve(schema.types.size());
    for (std::size_t c = 0; c < schema.types.size(); ++c) add_column(schema.types[c], c, rows);
  }
  RowArrays(const RowArrays&) = delete;
  const float* vectors() const { return floats_.data(); }
  const QxValues* values() const { return values_.empty() ? nullptr : values_.data(); }

 private:
  struct Column {
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> booleans;
    std::vector<QxText> texts;
    std::vector<std::uint8_t> nulls;
  };

  void add_column(std::int32_t type, std::size_t c, const std::vector<Row>& rows) {
    Column& column = columns_.emplace_back();
    std::size_t known = 0;
    for (const Row& row : rows) {
      const Value& value = row.values[c];
      const auto get = [&]<typename T>(T other) {
        return std::holds_alternative<T>(value) ? std::get<T>(value) : other;
      };
      known += value.index() != 0;
      column.nulls.push_back(value.index() == 0 ? 7 : 0);
      column.integers.push_back(get(std::int64_t{99}));
      column.reals.push_back(get(99.0));
      column.booleans.push_back(get(true) ? 2 : 0);
      const auto* const text = std::get_if<std::string>(&value);
      column.texts.push_back(text == nullptr ? QxText{nullptr, -1} : text_of(*text));
    }
    QxValues& values = values_.emplace_back(QxValues{});
    if (known < rows.size()) values.nulls = column.nulls.data();
    if (known == 0) return;
    if (type == QX_INTEGER) values.integers = column.integers.data();
    if (type == QX_REAL) values.reals = column.reals.data();
    if (type == QX_BOOLEAN) values.booleans = column.booleans.data();
    if (type == QX_TEXT) values.texts = column.texts.data();
  }

  Floats floats_;
  std::vector<Column> columns_;
  std::vector<QxValues> values_;
};

template <typename T>
bool same_bits(const T& a, const T& b) {
  using Bytes = std::array<std::byte, sizeof(T)>;
  return std::bit_cast<Bytes>(a) == std::bit_cast<Bytes>(b);
}

inline Id id_at(const std::int64_t* numbers, const QxText* texts, std::int64_t i) {
  if (numbers != nullptr) return {numbers[i], ""};
  return {0, std::string(texts[i].data, static_cast<std::size_t>(texts[i].size))};
}

// Slots beyond the hits are zero.
inline void expect_hits(const QxHits& hits, const std::vector<std::vector<Hit>>& expected) {
  ASSERT_EQ(hits.n_queries, std::ssize(expected));
  for (std::int64_t q = 0; q < hits.n_queries; ++q) {
    const std::vector<Hit>& wanted = expected[static_cast<std::size_t>(q)];
    ASSERT_EQ(hits.counts[q], std::ssize(wanted)) << "query " << q;
    ASSERT_LE(hits.counts[q], hits.k);
    for (std::int64_t i = 0; i < hits.k; ++i) {
      const bool is_hit = i < hits.counts[q];
      const Hit hit = is_hit ? wanted[static_cast<std::size_t>(i)] : Hit{nullptr, 0.0f};
      const Id id = id_at(hits.ids, hits.texts, q * hits.k + i);
      ASSERT_TRUE(same_bits(hits.scores[q * hits.k + i], hit.score))
          << "query " << q << ", slot " << i << ": " << hits.scores[q * hits.k + i] << " of "
          << id.number << id.text << ", not " << hit.score;
      ASSERT_EQ(id, is_hit ? *hit.id : Id())
          << "query " << q << ", slot " << i << ": " << id.number;
    }
  }
}

inline Value value_at(const QxValues& values, std::int32_t type, std::int64_t i) {
  if (values.nulls[i] != 0) return {};
  if (type == QX_INTEGER) return values.integers[i];
  if (type == QX_REAL) return values.reals[i];
  if (type == QX_BOOLEAN) return values.booleans[i] != 0;
  return id_at(nullptr, values.texts, i).text;
}

inline bool same_value(const Value& a, const Value& b) {
  const auto* const real = std::get_if<double>(&a);  // a NaN too
  return a.index() == b.index() &&
         (real == nullptr ? a == b : same_bits(*real, std::get<double>(b)));
}

// The rows of ids, as the model has them. `vectors` are as they are kept.
inline void expect_rows(const QxRows& rows, const Schema& schema,
                        const std::vector<Floats>& vectors, const std::vector<Id>& ids,
                        const Model& model) {
  ASSERT_EQ(rows.count, std::ssize(ids));
  ASSERT_EQ(rows.dim, schema.dim);
  ASSERT_EQ(rows.n_columns, std::ssize(schema.types));
  const auto dim = static_cast<std::size_t>(schema.dim);
  const Floats zeros(dim);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    ASSERT_EQ(id_at(rows.ids, rows.texts, static_cast<std::int64_t>(i)), ids[i]);
    const auto found = model.rows.find(ids[i]);
    const bool is_found = found != model.rows.end();
    ASSERT_EQ(rows.found[i], is_found ? 1 : 0);
    const Floats& vector = is_found ? vectors[found->second.vector] : zeros;
    ASSERT_EQ(std::memcmp(rows.vectors + i * dim, vector.data(), dim * sizeof(float)), 0);
    for (std::size_t c = 0; c < schema.types.size(); ++c) {
      const Value value = value_at(rows.columns[c], schema.types[c], static_cast<std::int64_t>(i));
      ASSERT_TRUE(same_value(is_found ? found->second.values[c] : Value(), value))
          << "column " << c;
    }
  }
}

}  // namespace qx_test
