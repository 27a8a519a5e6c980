// Rows as bytes, so that one message carries ids, vectors, and values of every type.
#pragma once

#include <qx_collection.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "communicator.hpp"

namespace qx::mpi {

// Of `values` one for each column, or none: every value is NULL.
struct Rows {
  std::span<const std::int64_t> ids;
  std::span<const float> vectors;
  std::span<const QxValues> values;
};

// A value that is not NULL, of a text its size.
struct Word {
  bool is_null = true;
  std::int64_t bits = 0;
};

inline Word word_of(const QxOptions& schema, const Rows& rows, std::size_t row,
                    std::size_t column) {
  if (rows.values.empty()) return {};
  const QxValues& values = rows.values[column];
  if (values.nulls != nullptr && values.nulls[row] != 0) return {};
  const auto word = [&](const auto* array, auto bits) {
    return array == nullptr ? Word() : Word{false, bits(array[row])};
  };
  const std::int32_t type = schema.columns[column].type;
  if (type == QX_TEXT) return word(values.texts, [](const QxText& text) { return text.size; });
  if (type == QX_REAL) return word(values.reals, std::bit_cast<std::int64_t, double>);
  if (type == QX_INTEGER) return word(values.integers, [](std::int64_t number) { return number; });
  return word(values.booleans, [](std::uint8_t truth) { return std::int64_t{truth}; });
}

template <typename T>
void put(std::vector<std::byte>& bytes, const T* from, std::size_t count = 1) {
  const auto* const first = reinterpret_cast<const std::byte*>(from);
  bytes.insert(bytes.end(), first, first + count * sizeof(T));
}

template <typename T>
void take(const std::byte*& from, T* into, std::size_t count = 1) {
  std::memcpy(into, from, count * sizeof(T));
  from += count * sizeof(T);
}

// Throws std::invalid_argument for what a collection of this schema would refuse, and for a row
// that takes more than `most` bytes.
inline void check_rows(const QxOptions& schema, const Rows& rows, std::int64_t most) {
  require(rows.vectors.size() == rows.ids.size() * at(schema.dim), rows.vectors.size(),
          " floats for ", rows.ids.size(), " rows of ", schema.dim);
  require(rows.values.empty() || rows.values.size() == at(schema.n_columns), rows.values.size(),
          " arrays of values for ", schema.n_columns, " columns");
  for (const float number : rows.vectors) require(std::isfinite(number), "a number is not finite");
  for (std::size_t row = 0; row < rows.ids.size(); ++row) {
    std::int64_t left =
        most - 8 - std::int64_t{4} * schema.dim - std::int64_t{9} * schema.n_columns;
    for (std::size_t column = 0; column < rows.values.size(); ++column) {
      if (schema.columns[column].type != QX_TEXT) continue;
      const std::int64_t size = word_of(schema, rows, row, column).bits;
      const bool is_there = size == 0 || rows.values[column].texts[row].data != nullptr;
      require(size >= 0 && size <= left && is_there, "row ", row, " has a text of ", size,
              " bytes");
      left -= size;
    }
  }
}

inline void pack_row(const QxOptions& schema, const Rows& rows, std::size_t row,
                     std::vector<std::byte>& bytes) {
  const std::size_t dim = at(schema.dim);
  put(bytes, &rows.ids[row]);
  put(bytes, &rows.vectors[row * dim], dim);
  for (std::size_t column = 0; column < at(schema.n_columns); ++column) {
    const Word word = word_of(schema, rows, row, column);
    put(bytes, &word.is_null);
    put(bytes, &word.bits);
    if (word.is_null || schema.columns[column].type != QX_TEXT) continue;
    put(bytes, rows.values[column].texts[row].data, at(word.bits));
  }
}

// Rows that were packed, for the collection. Texts stay in the bytes.
class UnpackedRows {
 public:
  UnpackedRows(const QxOptions& schema, std::span<const std::byte> bytes)
      : columns_(at(schema.n_columns)) {
    const std::byte* from = bytes.data();
    const std::byte* const end = from + bytes.size();
    while (from != end) {
      take(from, &ids_.emplace_back());
      vectors_.resize(vectors_.size() + at(schema.dim));
      take(from, &vectors_.end()[-schema.dim], at(schema.dim));
      for (std::size_t i = 0; i < columns_.size(); ++i) {
        Word word;
        take(from, &word.is_null);
        take(from, &word.bits);
        Column& column = columns_[i];
        column.nulls.push_back(word.is_null);
        column.integers.push_back(word.bits);
        column.reals.push_back(std::bit_cast<double>(word.bits));
        column.booleans.push_back(word.bits != 0);
        const bool is_text = schema.columns[i].type == QX_TEXT;
        column.texts.push_back({reinterpret_cast<const char*>(from), is_text ? word.bits : 0});
        from += column.texts.back().size;
      }
    }
  }

  std::int32_t upsert_into(QxCollection* collection) const {
    std::vector<QxValues> values;
    for (const Column& column : columns_) {
      values.push_back({column.integers.data(), column.reals.data(), column.booleans.data(),
                        column.texts.data(), column.nulls.data()});
    }
    const QxIds ids = {std::ssize(ids_), ids_.data(), nullptr};
    return ids.count == 0 ? QX_OK
                          : qx_collection_upsert(collection, ids, vectors_.data(), values.data());
  }

 private:
  struct Column {  // of which the array of its type is of use
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> booleans;
    std::vector<QxText> texts;
    std::vector<std::uint8_t> nulls;
  };
  std::vector<std::int64_t> ids_;
  std::vector<float> vectors_;
  std::vector<Column> columns_;
};

}  // namespace qx::mpi
