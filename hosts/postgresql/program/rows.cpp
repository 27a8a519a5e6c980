#include "program/rows.h"

#include <algorithm>

namespace qx::postgresql {

Schema::Schema(Reader& message)
    : dim_(message.get<std::int32_t>()), metric_(message.get<std::int32_t>()) {
  const auto n = message.get<std::int32_t>();
  for (std::int32_t i = 0; i < n; ++i) {
    const auto type = message.get<std::int32_t>();
    columns_.emplace_back(message.text(), type);
  }
}

Collection Schema::make(std::int64_t memory_limit) const {
  std::vector<QxColumn> columns;
  for (const auto& [name, type] : columns_) columns.push_back({name.c_str(), type});
  QxOptions options = {};
  options.dim = dim_;
  options.columns = columns.data();
  options.n_columns = static_cast<std::int32_t>(columns.size());
  options.memory_limit = memory_limit;
  options.metric = metric_;
  QxCollection* made = nullptr;
  expect(qx_collection_new(&options, &made));
  return Collection(made);
}

Rows::Rows(Reader& message) {
  const auto dim = message.get<std::int32_t>();
  const auto n_columns = message.get<std::int32_t>();
  const auto n_removed = message.get<std::int32_t>();
  const std::int64_t n = message.get<std::int32_t>();
  removed_ = message.array<std::int64_t>(n_removed);
  ids_ = message.array<std::int64_t>(n);
  vectors_ = message.array<float>(n * dim);
  for (std::int32_t i = 0; i < n_columns; ++i) columns_.push_back(column(message, n));
  for (const Column& c : columns_) {
    values_.push_back(
        {c.integers.data(), c.reals.data(), c.booleans.data(), c.texts.data(), c.nulls.data()});
  }
}

Rows::Column Rows::column(Reader& message, std::int64_t n) {
  Column c;
  const auto type = message.get<std::int32_t>();
  c.nulls = message.array<std::uint8_t>(n);
  if (type == QX_INTEGER) c.integers = message.array<std::int64_t>(n);
  if (type == QX_REAL) c.reals = message.array<double>(n);
  if (type == QX_BOOLEAN) c.booleans = message.array<std::uint8_t>(n);
  if (type != QX_TEXT) return c;
  std::int64_t total = 0;
  for (const std::int64_t size : message.array<std::int64_t>(n)) {
    if (size < 0 || size > static_cast<std::int64_t>(QX_LARGEST_MESSAGE)) throw Malformed();
    c.texts.push_back({nullptr, size});
    total += size;
  }
  c.bytes = message.array<char>(total);
  const char* next = c.bytes.data();
  for (QxText& text : c.texts) {
    text.data = next;
    next += text.size;
  }
  return c;
}

void Rows::apply(QxCollection* to) const {
  if (removed() > 0) {
    expect(qx_collection_remove(to, {removed(), removed_.data(), nullptr}, nullptr));
  }
  if (count() == 0) return;
  expect(
      qx_collection_upsert(to, {count(), ids_.data(), nullptr}, vectors_.data(), values_.data()));
}

void Rows::apply(QxView* to) const {
  if (removed() > 0) expect(qx_view_remove(to, {removed(), removed_.data(), nullptr}, nullptr));
  if (count() == 0) return;
  expect(qx_view_upsert(to, {count(), ids_.data(), nullptr}, vectors_.data(), values_.data()));
}

Question::Question(Reader& message)
    : k(message.get<std::int64_t>()),
      filter(message.text()),
      query(message.array<float>(message.get<std::int32_t>())) {}

Hits Question::ask(const QxCollection* of, const QxView* view, QxProgress progress,
                   void* context) const {
  QxOptions schema = {};
  qx_collection_schema(of, &schema);
  if (std::ssize(query) != schema.dim) {
    throw Refused("the query has " + std::to_string(query.size()) + " numbers, the vectors " +
                  std::to_string(schema.dim));
  }
  QxSearch search = {};
  search.filter = filter.empty() ? nullptr : filter.c_str();
  search.progress = progress;
  search.progress_context = context;
  QxHits* hits = nullptr;
  const std::int64_t most = std::min(k, qx_collection_count(of, view));
  expect(qx_collection_search(of, view, query.data(), 1, most, &search, &hits));
  return Hits(hits);
}

}  // namespace qx::postgresql
