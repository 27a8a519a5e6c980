// A collection whose first rows the host writes where they stay.
#include <algorithm>
#include <atomic>
#include <optional>

#include "interface/handles.h"

using namespace qx::collection;

namespace {

// A block stays in a cache until it is complete. It has whole groups of codes.
constexpr std::int64_t kBlockFloats = std::int64_t{1} << 18;
constexpr std::int64_t kMostBlockRows = 4096;
// Of more floats, codes are made after the build, if there is a thread for that.
constexpr std::int64_t kMostCodedAtOnce = std::int64_t{1} << 22;
constexpr std::int64_t kMostWaiting = 4;  // of filled blocks, before the thread that fills helps

constexpr std::int64_t block_rows_of(std::int64_t dim) {
  const std::int64_t rows = std::min(kBlockFloats / dim, kMostBlockRows);
  return std::max<std::int64_t>(rows / qx::kCodeGroupRows, 1) * qx::kCodeGroupRows;
}

class Building {
 public:
  Building(const Shape& shape, std::int64_t rows, bool has_thread)
      : shape_(shape),
        rows_(rows),
        block_rows_(block_rows_of(shape.dim)),
        blocks_((rows_ + block_rows_ - 1) / block_rows_),
        builder_(shape, rows_) {
    if (has_thread && rows_ * shape.dim > kMostCodedAtOnce) builder_.leave_codes_out();
  }

  // The calling thread fills block after block. The others complete what is filled, and have the
  // system give memory, which is slow, for what is to come.
  void fill(QxFill write, void* context) {
    parallel_for(shape_.threads, shape_.threads, {nullptr, nullptr}, [&](std::int64_t, int worker) {
      try {
        worker == 0 ? fill_blocks(write, context) : help();
      } catch (...) {
        filled_.store(kStopped);
        filled_.notify_all();
        throw;
      }
    });
  }

  void add_ids(const std::vector<Key>& keys) {
    require(std::ranges::adjacent_find(keys, std::ranges::greater_equal()) == keys.end(),
            [] { return std::string("the ids do not ascend"); });
    for (const Key& key : keys) builder_.add_id(key);
  }

  void add_columns(const QxValues* values) {
    for (std::size_t c = 0; c < shape_.schema.size(); ++c) {
      const ColumnType type = shape_.schema[c].type;
      builder_.add_column(Column::of(type, rows_, [&](std::int64_t row) {
        return values == nullptr ? Value{} : value_of(values[c], type, row);
      }));
    }
  }

  std::shared_ptr<Members> members(const Lists& lists, const std::uint32_t* of_rows) {
    std::vector<ListNumber> numbers(static_cast<std::size_t>(rows_));
    parallel_for(blocks_, shape_.threads, {nullptr, nullptr}, [&](std::int64_t block, int) {
      std::vector<float> space;
      for (std::int64_t row = block * block_rows_; row < end_of(block); ++row) {
        const std::uint32_t list = of_rows[row];
        require(list < lists.count() || list == QX_NO_LIST, [&] {
          return "row " + std::to_string(row) + " is in list " + std::to_string(list) + " of " +
                 std::to_string(lists.count());
        });
        numbers[static_cast<std::size_t>(row)] =
            list == QX_NO_LIST ? lists.list_of(builder_.vector(row), space) : list;
      }
    });
    return std::make_shared<Members>(numbers, lists.count(), shape_.budget);
  }

  std::shared_ptr<Segment> finish() { return builder_.finish(); }

 private:
  static constexpr std::int64_t kStopped = -1;

  void fill_blocks(QxFill write, void* context) {
    for (std::int64_t block = filled_.load(); 0 <= block && block < blocks_;) {
      const std::int64_t first = block * block_rows_, end = end_of(block);
      if (write(context, first, end - first, builder_.vector(0)) != 0) {
        throw Error(QX_CANCELLED, "the host cancelled");
      }
      if (!filled_.compare_exchange_strong(block, block + 1)) return;
      filled_.notify_all();
      if (++block - next_to_complete_.load() > kMostWaiting) complete_one();
    }
    while (complete_one()) continue;
  }

  void help() {
    while (true) {
      const std::int64_t filled = filled_.load();
      if (complete_one()) continue;
      if (filled == kStopped || filled == blocks_) return;
      if (next_to_expect_.load() >= blocks_) {
        filled_.wait(filled);
        continue;
      }
      const std::int64_t block = next_to_expect_.fetch_add(1);
      if (filled < block && block < blocks_)
        builder_.expect_writes(block * block_rows_, end_of(block));
    }
  }

  // False if no filled block is left.
  bool complete_one() {
    std::int64_t block = next_to_complete_.load();
    do {
      if (block >= filled_.load()) return false;
    } while (!next_to_complete_.compare_exchange_weak(block, block + 1));
    const std::int64_t first = block * block_rows_, end = end_of(block);
    require_finite("vector", builder_.vector(first), static_cast<std::size_t>(end - first),
                   shape_.dim, static_cast<std::size_t>(first));
    for (std::int64_t row = first; row < end; ++row) {
      float* const vector = builder_.vector(row);
      if (!is_kept(shape_.metric, vector, shape_.dim)) {
        keep_vector(shape_.metric, vector, shape_.dim, vector);
      }
    }
    builder_.complete(first, end);
    return true;
  }

  std::int64_t end_of(std::int64_t block) const {
    return std::min((block + 1) * block_rows_, rows_);
  }

  const Shape& shape_;
  const std::int64_t rows_;
  const std::int64_t block_rows_;
  const std::int64_t blocks_;
  SegmentBuilder builder_;
  std::atomic<std::int64_t> filled_ = 0;  // blocks, or kStopped
  std::atomic<std::int64_t> next_to_complete_ = 0;
  std::atomic<std::int64_t> next_to_expect_ = 0;
};

std::shared_ptr<const Lists> lists_of(const Shape& shape, const QxLists& given_lists) {
  require(given_lists.count >= 1 && given_lists.count <= 65536, [&] {
    return "the number of lists is " + std::to_string(given_lists.count) + ", outside 1 to 65536";
  });
  given(given_lists.of_rows, "of_rows");
  require_finite("centroid", &given(given_lists.centroids, "centroids"),
                 static_cast<std::size_t>(given_lists.count), shape.dim);
  return std::make_shared<const Lists>(given_lists.centroids, given_lists.count, shape.dim,
                                       nearness_of(shape), shape.budget);
}

}  // namespace

int32_t qx_collection_build(const QxOptions* options, QxIds ids, const QxValues* values,
                            const QxLists* lists, QxFill fill, void* context, QxCollection** out) {
  return status_of([&] {
    QxCollection*& slot = given(out, "out");
    auto made = new_collection(given(options, "options"));
    Collection& rows = made->collection;
    const Shape& shape = rows.shape();
    require_count(ids);
    if (ids.count > 0) {
      require(fill != nullptr, [] { return std::string("fill is null"); });
      Building building(shape, ids.count, options->manual == 0);
      building.fill(fill, context);
      building.add_ids(keys_of(shape, ids));
      check_values(values, shape.schema, ids.count);
      building.add_columns(values);
      Sealed sealed;
      std::shared_ptr<const Lists> divided;
      if (lists != nullptr) {
        divided = lists_of(shape, *lists);
        sealed.members = building.members(*divided, lists->of_rows);
      }
      sealed.segment = building.finish();
      rows.adopt(std::move(sealed), std::move(divided));
    }
    slot = made.release();
  });
}

int32_t qx_collection_lists(const QxCollection* collection, QxIds ids, int64_t n_lists,
                            float* centroids, uint32_t* of_rows) {
  return status_of([&] {
    const Reading reading(collection, nullptr);
    const State& state = reading.state();
    const std::int64_t count = state.lists == nullptr ? 0 : state.lists->count();
    require(n_lists == count && count > 0, [&] {
      return "n_lists is " + std::to_string(n_lists) + ", and there are " + std::to_string(count);
    });
    const std::vector<Key> keys = keys_of(reading.shape(), ids);
    given(centroids, "centroids");
    require(of_rows != nullptr || keys.empty(), [] { return std::string("of_rows is null"); });
    const RowLists lists(state);
    for (std::int64_t list = 0; list < count; ++list) {
      std::copy_n(state.lists->centroid(list), reading.shape().dim,
                  centroids + list * reading.shape().dim);
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const Location at = state.find(keys[i]);
      of_rows[i] = at.exists() ? lists.of(at) : QX_NO_LIST;
    }
  });
}
