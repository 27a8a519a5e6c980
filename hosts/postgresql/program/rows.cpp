#include "program/rows.h"

#include <algorithm>
#include <string_view>

namespace qx::postgresql {
namespace {

Texts read_texts(Reader& message, std::int64_t n) {
  Texts texts;
  std::int64_t total = 0;
  for (const std::int64_t size : message.array<std::int64_t>(n)) {
    if (size < 0 || size > static_cast<std::int64_t>(QX_LARGEST_MESSAGE)) throw Malformed();
    texts.all.push_back({nullptr, size});
    total += size;
  }
  texts.bytes = message.array<char>(total);
  const char* next = texts.bytes.data();
  for (QxText& text : texts.all) {
    text.data = next;
    next += text.size;
  }
  return texts;
}

std::string_view view_of(const QxText& text) {
  return {text.data, static_cast<std::size_t>(text.size)};
}

}  // namespace

// ---- Schemas ----

Schema::Schema(Reader& message)
    : dim_(message.get<std::int32_t>()),
      metric_(message.get<std::int32_t>()),
      id_kind_(message.get<std::int32_t>()) {
  const auto n = message.get<std::int32_t>();
  for (std::int32_t i = 0; i < n; ++i) {
    const auto type = message.get<std::int32_t>();
    columns_.emplace_back(message.text(), type);
  }
}

std::vector<QxColumn> Schema::columns() const {
  std::vector<QxColumn> columns;
  for (const auto& [name, type] : columns_) columns.push_back({name.c_str(), type});
  return columns;
}

QxOptions Schema::options(const std::vector<QxColumn>& columns, std::int64_t memory_limit) const {
  QxOptions options = {};
  options.dim = dim_;
  options.id_kind = id_kind_;
  options.columns = columns.data();
  options.n_columns = static_cast<std::int32_t>(columns.size());
  options.memory_limit = memory_limit;
  options.metric = metric_;
  return options;
}

Collection Schema::make(std::int64_t memory_limit) const {
  const auto all = columns();
  const QxOptions made_so = options(all, memory_limit);
  QxCollection* made = nullptr;
  expect(qx_collection_new(&made_so, &made));
  return Collection(made);
}

// ---- Rows ----

Rows::Sizes::Sizes(Reader& message)
    : dim(message.get<std::int32_t>()),
      id_kind(message.get<std::int32_t>()),
      columns(message.get<std::int32_t>()),
      removed(message.get<std::int32_t>()),
      rows(message.get<std::int32_t>()) {}

Rows::Ids::Ids(Reader& message, std::int32_t kind, std::int64_t n) {
  if (kind == QX_TEXTS) {
    texts = read_texts(message, n);
  } else {
    numbers = message.array<std::int64_t>(n);
  }
}

QxIds Rows::Ids::list() const {
  if (texts.all.empty()) return {std::ssize(numbers), numbers.data(), nullptr};
  return {std::ssize(texts.all), nullptr, texts.all.data()};
}

Rows::Rows(Reader& message) : Rows(message, Sizes(message)) {}

Rows::Rows(Reader& message, const Sizes& sizes)
    : removed_(message, sizes.id_kind, sizes.removed),
      ids_(message, sizes.id_kind, sizes.rows),
      vectors_(message.array<float>(std::int64_t{sizes.rows} * sizes.dim)) {
  for (std::int32_t i = 0; i < sizes.columns; ++i) columns_.push_back(column(message, sizes.rows));
  for (const Column& c : columns_) values_.push_back(c.values());
}

QxValues Rows::Column::values() const {
  return {integers.data(), reals.data(), booleans.data(), texts.all.data(), nulls.data()};
}

void Rows::Column::add(const Column& from, std::size_t row) {
  nulls.push_back(from.nulls[row]);
  if (!from.integers.empty()) integers.push_back(from.integers[row]);
  if (!from.reals.empty()) reals.push_back(from.reals[row]);
  if (!from.booleans.empty()) booleans.push_back(from.booleans[row]);
  if (!from.texts.all.empty()) texts.all.push_back(from.texts.all[row]);
}

Rows::Column Rows::column(Reader& message, std::int64_t n) {
  Column c;
  const auto type = message.get<std::int32_t>();
  c.nulls = message.array<std::uint8_t>(n);
  if (type == QX_INTEGER) c.integers = message.array<std::int64_t>(n);
  if (type == QX_REAL) c.reals = message.array<double>(n);
  if (type == QX_BOOLEAN) c.booleans = message.array<std::uint8_t>(n);
  if (type == QX_TEXT) c.texts = read_texts(message, n);
  return c;
}

void Rows::apply(QxCollection* to) const {
  if (removed() > 0) expect(qx_collection_remove(to, removed_.list(), nullptr));
  if (count() == 0) return;
  expect(qx_collection_upsert(to, ids_.list(), vectors_.data(), values_.data()));
}

void Rows::apply(QxView* to) const {
  if (removed() > 0) expect(qx_view_remove(to, removed_.list(), nullptr));
  if (count() == 0) return;
  expect(qx_view_upsert(to, ids_.list(), vectors_.data(), values_.data()));
}

// ---- The first rows ----

void Loading::add(Rows rows) {
  bytes_ += std::ssize(rows.vectors_) * static_cast<std::int64_t>(sizeof(float));
  rows_ += rows.count();
  parts_.push_back(std::move(rows));
}

std::vector<Loading::Place> Loading::order() const {
  std::vector<Place> places;
  places.reserve(static_cast<std::size_t>(rows_));
  for (std::size_t part = 0; part < parts_.size(); ++part) {
    const auto n = static_cast<std::size_t>(parts_[part].count());
    for (std::size_t row = 0; row < n; ++row) places.push_back({part, row});
  }
  const auto rises = [this](const Place& a, const Place& b) {
    const Rows::Ids &x = parts_[a.part].ids_, &y = parts_[b.part].ids_;
    if (schema_.id_kind_ == QX_NUMBERS) return x.numbers[a.row] < y.numbers[b.row];
    return view_of(x.texts.all[a.row]) < view_of(y.texts.all[b.row]);
  };
  if (!std::ranges::is_sorted(places, rises)) std::ranges::sort(places, rises);
  return places;
}

Collection Loading::build() {
  if (schema_.dim() == 0) return {};
  const std::vector<Place> places = order();
  std::vector<std::int64_t> numbers;
  std::vector<QxText> texts;
  for (const auto& [part, row] : places) {
    const Rows::Ids& ids = parts_[part].ids_;
    if (schema_.id_kind_ == QX_NUMBERS) numbers.push_back(ids.numbers[row]);
    if (schema_.id_kind_ == QX_TEXTS) texts.push_back(ids.texts.all[row]);
  }
  std::vector<Rows::Column> columns(schema_.columns_.size());
  std::vector<QxValues> values;
  for (std::size_t c = 0; c < columns.size(); ++c) {
    for (const auto& [part, row] : places) columns[c].add(parts_[part].columns_[c], row);
    values.push_back(columns[c].values());
  }
  // Vectors of a part are released once all are written.
  struct Filling {
    std::vector<Rows>& parts;
    const std::vector<Place>& places;
    std::size_t dim;
    std::vector<std::int64_t> left;
  } filling{parts_, places, static_cast<std::size_t>(schema_.dim()), {}};
  for (const Rows& rows : parts_) filling.left.push_back(rows.count());
  const auto fill = [](void* context, std::int64_t first, std::int64_t count,
                       float* vectors) -> std::int32_t {
    Filling& f = *static_cast<Filling*>(context);
    const auto begin = static_cast<std::size_t>(first);
    float* to = vectors + begin * f.dim;
    for (const auto& [part, row] :
         std::span(f.places).subspan(begin, static_cast<std::size_t>(count))) {
      std::vector<float>& from = f.parts[part].vectors_;
      std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(row * f.dim), f.dim, to);
      to += f.dim;
      if (--f.left[part] == 0) from = {};
    }
    return 0;
  };
  const std::vector<QxColumn> named = schema_.columns();
  const QxOptions options = schema_.options(named, memory_limit_);
  QxCollection* made = nullptr;
  expect(qx_collection_build(&options, {rows_, numbers.data(), texts.data()}, values.data(),
                             nullptr, fill, &filling, &made));
  return Collection(made);
}

// ---- Questions ----

Question::Question(Reader& message)
    : k(message.get<std::int64_t>()),
      threads(message.get<std::int32_t>()),
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
  search.threads = threads;
  QxHits* hits = nullptr;
  const std::int64_t most = std::min(k, qx_collection_count(of, view));
  expect(qx_collection_search(of, view, query.data(), 1, most, &search, &hits));
  return Hits(hits);
}

}  // namespace qx::postgresql
