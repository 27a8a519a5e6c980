// A collection whose first rows the host writes where they stay.
#include <algorithm>

#include "interface/handles.h"

using namespace qx::collection;

namespace {

constexpr std::int64_t kBlockRows = 4096;  // of one task; whole groups of codes

std::shared_ptr<Segment> fill_segment(const Shape& shape, QxIds ids, const QxValues* values,
                                      QxFill fill, void* context, int threads) {
  const std::vector<Key> keys = keys_of(shape, ids);
  require(std::ranges::adjacent_find(keys, std::ranges::greater_equal()) == keys.end(),
          [] { return std::string("the ids do not ascend"); });
  check_values(values, shape.schema, ids.count);
  require(fill != nullptr, [] { return std::string("fill is null"); });
  SegmentBuilder builder(shape, ids.count);
  for (const Key& key : keys) builder.add_id(key);
  if (fill(context, builder.vector(0)) != 0) throw Error(QX_CANCELLED, "the host cancelled");
  const auto complete = [&](std::int64_t block, int) {
    const std::int64_t first = block * kBlockRows;
    const std::int64_t end = std::min(first + kBlockRows, ids.count);
    require_finite("vector", builder.vector(first), static_cast<std::size_t>(end - first),
                   shape.dim, static_cast<std::size_t>(first));
    for (std::int64_t row = first; row < end; ++row) {
      float* const vector = builder.vector(row);
      if (!is_kept(shape.metric, vector, shape.dim)) {
        keep_vector(shape.metric, vector, shape.dim, vector);
      }
    }
    builder.complete(first, end);
  };
  parallel_for((ids.count + kBlockRows - 1) / kBlockRows, threads, {nullptr, nullptr}, complete);
  for (std::size_t c = 0; c < shape.schema.size(); ++c) {
    const ColumnType type = shape.schema[c].type;
    builder.add_column(Column::of(type, ids.count, [&](std::int64_t row) {
      return values == nullptr ? Value{} : value_of(values[c], type, row);
    }));
  }
  return builder.finish();
}

}  // namespace

int32_t qx_collection_build(const QxOptions* options, QxIds ids, const QxValues* values,
                            QxFill fill, void* context, QxCollection** out) {
  return status_of([&] {
    QxCollection*& slot = given(out, "out");
    auto made = new_collection(given(options, "options"));
    Collection& rows = made->collection;
    if (ids.count != 0) {
      rows.adopt(
          {fill_segment(rows.shape(), ids, values, fill, context, rows.shape().threads), nullptr},
          nullptr);
    }
    slot = made.release();
  });
}
