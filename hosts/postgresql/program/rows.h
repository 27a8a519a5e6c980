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

// What a collection is made of.
class Schema {
 public:
  Schema() = default;
  explicit Schema(Reader& message);
  Collection make(std::int64_t memory_limit) const;
  std::int32_t dim() const { return dim_; }
  std::int32_t metric() const { return metric_; }

 private:
  std::int32_t dim_ = 0;
  std::int32_t metric_ = 0;
  std::vector<std::pair<std::string, std::int32_t>> columns_;
};

// Rows to be written, and ids of rows to be removed.
class Rows {
 public:
  explicit Rows(Reader& message);
  std::int64_t removed() const { return std::ssize(removed_); }
  std::int64_t count() const { return std::ssize(ids_); }
  void apply(QxCollection* to) const;
  void apply(QxView* to) const;

 private:
  struct Column {
    std::vector<std::uint8_t> nulls;
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> booleans;
    std::vector<char> bytes;
    std::vector<QxText> texts;
  };
  static Column column(Reader& message, std::int64_t n);

  std::vector<std::int64_t> removed_;
  std::vector<std::int64_t> ids_;
  std::vector<float> vectors_;
  std::vector<Column> columns_;
  std::vector<QxValues> values_;
};

struct Question {
  Question() = default;
  explicit Question(Reader& message);
  Hits ask(const QxCollection* of, const QxView* view, QxProgress progress, void* context) const;

  std::int64_t k = 0;
  std::string filter;
  std::vector<float> query;
};

}  // namespace qx::postgresql
