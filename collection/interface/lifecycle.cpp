// Creation, release, changes and views.
#include <cstring>

#include "interface/handles.h"

using namespace qx::collection;

QxCollection::QxCollection(Shape shape, bool is_manual) : collection(std::move(shape), is_manual) {
  for (const ColumnSchema& column : collection.shape().schema) {
    columns.push_back({column.name.c_str(), static_cast<std::int32_t>(column.type)});
  }
}

namespace qx::collection {

namespace {

// Of fixed size, so that noting what is wrong needs no memory.
thread_local char message[512] = "";

}  // namespace

std::int32_t note_failure(std::int32_t status, const char* text) noexcept {
  std::strncpy(message, text, sizeof(message) - 1);
  return status;
}

void check_options(const QxOptions& options) {
  require(options.threads >= 0,
          [&] { return "threads is " + std::to_string(options.threads) + ", below 0"; });
  require(options.memory_limit >= 0,
          [&] { return "memory_limit is " + std::to_string(options.memory_limit) + ", below 0"; });
}

std::unique_ptr<QxCollection> new_collection(const QxOptions& wanted) {
  check_options(wanted);
  require(wanted.dim >= 1 && wanted.dim <= 65536,
          [&] { return "dim is " + std::to_string(wanted.dim) + ", outside 1 to 65536"; });
  require(wanted.id_kind == QX_NUMBERS || wanted.id_kind == QX_TEXTS,
          [&] { return "id_kind is " + std::to_string(wanted.id_kind) + ", no kind of ids"; });
  require(wanted.metric >= QX_INNER_PRODUCT && wanted.metric <= QX_EUCLIDEAN,
          [&] { return "metric is " + std::to_string(wanted.metric) + ", no metric"; });
  Shape shape{wanted.dim,
              wanted.id_kind == QX_TEXTS,
              Metric{wanted.metric},
              make_schema(wanted.columns, wanted.n_columns),
              std::make_shared<Budget>(wanted.memory_limit),
              threads_of(wanted)};
  return std::make_unique<QxCollection>(std::move(shape), wanted.manual != 0);
}

}  // namespace qx::collection

const char* qx_collection_message(void) { return message; }

int32_t qx_collection_new(const QxOptions* options, QxCollection** out) {
  return status_of([&] {
    QxCollection*& slot = given(out, "out");
    slot = new_collection(given(options, "options")).release();
  });
}

void qx_collection_free(QxCollection* collection) { delete collection; }

void qx_collection_schema(const QxCollection* collection, QxOptions* out) {
  const Shape& shape = collection->collection.shape();
  *out = {};
  out->dim = shape.dim;
  out->id_kind = shape.has_texts ? QX_TEXTS : QX_NUMBERS;
  out->metric = static_cast<int32_t>(shape.metric);
  out->columns = collection->columns.data();
  out->n_columns = static_cast<int32_t>(collection->columns.size());
}

// ---- Changes ----

int32_t qx_collection_upsert(QxCollection* collection, QxIds ids, const float* vectors,
                             const QxValues* values) {
  return status_of([&] {
    Collection& rows = given(collection, "the collection").collection;
    rows.upsert({rows.shape(), ids, vectors, values});
  });
}

int32_t qx_collection_remove(QxCollection* collection, QxIds ids, int64_t* removed) {
  return status_of([&] {
    Collection& rows = given(collection, "the collection").collection;
    const std::int64_t count = rows.remove(keys_of(rows.shape(), ids));
    if (removed != nullptr) *removed = count;
  });
}

int32_t qx_collection_train(QxCollection* collection, int64_t n_lists, QxProgress progress,
                            void* context) {
  return status_of([&] {
    require(n_lists >= 0 && n_lists <= 65536,
            [&] { return "n_lists is " + std::to_string(n_lists) + ", outside 0 to 65536"; });
    given(collection, "the collection").collection.train(n_lists, {progress, context});
  });
}

int32_t qx_collection_compact(QxCollection* collection, QxProgress progress, void* context) {
  return status_of([&] {
    given(collection, "the collection").collection.compact({progress, context});
  });
}

// ---- Views ----

int32_t qx_view_new(const QxCollection* collection, QxView** out) {
  return status_of([&] {
    QxView*& slot = given(out, "out");
    slot = new QxView{View(given(collection, "the collection").collection)};
  });
}

void qx_view_free(QxView* view) { delete view; }

int32_t qx_view_upsert(QxView* view, QxIds ids, const float* vectors, const QxValues* values) {
  return status_of([&] {
    View& rows = given(view, "the view").view;
    rows.upsert({rows.shape(), ids, vectors, values});
  });
}

int32_t qx_view_remove(QxView* view, QxIds ids, int64_t* removed) {
  return status_of([&] {
    View& rows = given(view, "the view").view;
    const std::int64_t count = rows.remove(keys_of(rows.shape(), ids));
    if (removed != nullptr) *removed = count;
  });
}
