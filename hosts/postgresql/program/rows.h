// Schemas, rows and questions of messages, as the collection takes them.
#pragma once

#include <qx_collection.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "program/message.h"

namespace qx::postgresql {

struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void expect(std::int32_t status) {
  if (status != QX_OK) throw Refused(qx_collection_message());
}

struct Free {
  void operator()(QxCollection* owned) const { qx_collection_free(owned); }
  void operator()(QxView* owned) const { qx_view_free(owned); }
  void operator()(QxHits* owned) const { qx_hits_free(owned); }
};
using Collection = std::unique_ptr<QxCollection, Free>;
using View = std::unique_ptr<QxView, Free>;
using Hits = std::unique_ptr<QxHits, Free>;

// Texts of a message.
struct Texts {
  std::vector<char> bytes;
  std::vector<QxText> all;  // in `bytes`
};

// What a collection is made of.
class Schema {
 public:
  Schema() = default;
  explicit Schema(Reader& message);
  Collection make(std::int64_t memory_limit) const;
  std::int32_t dim() const { return dim_; }
  std::int32_t metric() const { return metric_; }
  std::int32_t id_kind() const { return id_kind_; }

 private:
  friend class Loading;
  std::vector<QxColumn> columns() const;
  QxOptions options(const std::vector<QxColumn>& columns, std::int64_t memory_limit) const;

  std::int32_t dim_ = 0;
  std::int32_t metric_ = 0;
  std::int32_t id_kind_ = QX_NUMBERS;
  std::vector<std::pair<std::string, std::int32_t>> columns_;
};

// Rows to be written, and ids of rows to be removed.
class Rows {
 public:
  explicit Rows(Reader& message);
  std::int64_t removed() const { return removed_.list().count; }
  std::int64_t count() const { return ids_.list().count; }
  void apply(QxCollection* to) const;
  void apply(QxView* to) const;

 private:
  friend class Loading;
  struct Ids {
    Ids(Reader& message, std::int32_t kind, std::int64_t n);
    QxIds list() const;

    std::vector<std::int64_t> numbers;
    Texts texts;
  };
  struct Column {
    QxValues values() const;
    void add(const Column& from, std::size_t row);

    std::vector<std::uint8_t> nulls;
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> booleans;
    Texts texts;
  };
  struct Sizes {
    explicit Sizes(Reader& message);
    std::int32_t dim, id_kind, columns, removed, rows;
  };
  Rows(Reader& message, const Sizes& sizes);
  static Column column(Reader& message, std::int64_t n);

  Ids removed_;
  Ids ids_;
  std::vector<float> vectors_;
  std::vector<Column> columns_;
  std::vector<QxValues> values_;
};

// The first rows of an index, which are kept until they are all there.
class Loading {
 public:
  Loading(Schema schema, std::int64_t memory_limit)
      : schema_(std::move(schema)), memory_limit_(memory_limit) {}
  void add(Rows rows);
  std::int64_t rows() const { return rows_; }
  std::int64_t bytes() const { return bytes_; }
  // Takes the rows; null where not even their dimension is known.
  Collection build();

 private:
  struct Place {
    std::size_t part, row;
  };
  std::vector<Place> order() const;

  Schema schema_;
  std::int64_t memory_limit_;
  std::vector<Rows> parts_;
  std::int64_t rows_ = 0, bytes_ = 0;
};

struct Question {
  Question() = default;
  explicit Question(Reader& message);
  Hits ask(const QxCollection* of, const QxView* view, QxProgress progress, void* context) const;

  std::int64_t k = 0;
  std::int32_t threads = 0;
  std::string filter;
  std::vector<float> query;
};

}  // namespace qx::postgresql
