#include "cpus/life.h"

#include <algorithm>

namespace qx_test {
namespace {

// What an output holds where a call writes nothing.
constexpr std::int64_t kUntouchedId = 0x0123456789ABCDEF;
constexpr float kUntouchedFloat = 0x1.234567p-8f;

constexpr std::int64_t kPartitions = 4;
constexpr std::int64_t kKeys = 3;  // of IVF structures

// A life's base has at most so many floats, so that slow CPUs keep up.
constexpr std::int64_t kMostFloats = 60000;

template <typename Element>
std::vector<Element> outputs(std::int64_t count, Element untouched) {
  return std::vector<Element>(static_cast<std::size_t>(count) + 2, untouched);
}

// The two arrays that a search fills.
struct Slots {
  explicit Slots(std::int64_t k)
      : ids(outputs(std::max<std::int64_t>(k, 0), kUntouchedId)),
        scores(outputs(std::max<std::int64_t>(k, 0), kUntouchedFloat)) {}
  std::vector<std::int64_t> ids;
  std::vector<float> scores;
};

}  // namespace

Life::Life(std::uint64_t seed, bool trace) : random_(seed), trace_(trace) {
  static const std::vector<std::int32_t> dims = {0,  1,  2,  3,  4,   5,   7,   8,   9,   15,
                                                 16, 17, 31, 64, 100, 128, 200, 257, 512, 768};
  static const std::vector<std::int64_t> rows = {0,   1,   7,   63,  64,   65,
                                                 191, 192, 193, 500, 1000, 3000};
  static const std::vector<Values> values = {Values::kTies,  Values::kSmooth, Values::kSpecial,
                                             Values::kBits,  Values::kMixed,  Values::kGiants,
                                             Values::kSmooth};
  dim_ = random_.any_of(dims);
  rows_ = std::min(random_.any_of(rows), kMostFloats / std::max(dim_, 1));
  id_end_ = std::max<std::int64_t>(rows_ * random_.between(1, 6) / 2, 1);
  values_ = random_.any_of(values);
  index_ = qx_index_new(static_cast<std::uint32_t>(dim_),
                        static_cast<std::uint32_t>(random_.bits() & 0xFFFFFFFF));
}

Life::~Life() { qx_index_free(index_); }

Life::Ids Life::draw_ids(std::int64_t count) {
  Ids ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back(draw_id());
  return ids;
}

// Either each id once, in order or not, or drawn ones, of which some repeat.
Life::Ids Life::draw_base_ids(std::int64_t count) {
  const bool each_once = id_end_ >= count && random_.percent(60);
  Ids ids;
  for (std::int64_t i = 0; i < count; ++i) {
    ids.push_back(each_once ? i : random_.between(0, id_end_ - 1));
  }
  if (random_.percent(50)) random_.shuffle(ids);
  return ids;
}

std::int32_t Life::draw_k(std::int64_t rows) {
  static const std::vector<std::int32_t> some = {0, 1, 2, 10, 16, 17, 48, 49, 100, 256, 300};
  if (random_.percent(10)) return static_cast<std::int32_t>(rows) + random_.between32(-1, 3);
  return random_.any_of(some);
}

void Life::ask_about_index() {
  std::uint64_t n_base = 0;
  std::uint32_t dim = 0;
  std::uint32_t user_tag = 0;
  std::int32_t n_parts = 0;
  const std::int32_t status = qx_index_stats(index_, &n_base, &dim, &user_tag, &n_parts);
  gave("stats", status, n_base, dim, user_tag, n_parts);
  gave("snapshot", qx_index_snapshot(index_));
  gave("mutated", qx_index_mutated(index_));
  gave("sealed", qx_index_sealed(index_));
  gave("delta_count", qx_index_delta_count(index_));
  gave("format_version", qx_runtime_format_version());
}

void Life::build() {
  const Floats vectors = draw_rows(rows_);
  Ids ids = draw_base_ids(rows_);
  Ids keys;
  std::vector<std::int32_t> starts;
  std::vector<std::int32_t> sizes;
  for (std::int64_t p = 0; p < kPartitions; ++p) {
    keys.push_back(p * 2);
    starts.push_back(static_cast<std::int32_t>(p * rows_ / kPartitions));
    sizes.push_back(random_.between32(-1, static_cast<std::int32_t>(rows_ / 2) + 1));
  }
  if (random_.percent(10)) ids.assign(1, -1);  // refused, unless there are no rows
  const std::int64_t rows = std::min<std::int64_t>(rows_, std::ssize(ids));
  gave("build", qx_index_build(index_, vectors.data(), rows, dim_, ids.data(), keys.data(),
                               starts.data(), sizes.data(), kPartitions));
}

void Life::insert() {
  const Ids ids = draw_ids(random_.between(0, std::min<std::int64_t>(rows_ / 4 + 3, 90)));
  const Floats vectors = draw_rows(std::ssize(ids));
  gave("insert",
       qx_index_insert(index_, vectors.data(), ids.data(), static_cast<std::int32_t>(ids.size())));
}

void Life::erase() {
  const Ids ids = draw_ids(random_.between(0, rows_ / 8 + 3));
  gave("delete", qx_index_delete(index_, ids.data(), static_cast<std::int32_t>(ids.size())));
}

void Life::set_rowmeta() {
  const std::int32_t ncols = ncols_ + random_.between32(-1, 1);
  const Ids ids = draw_ids(random_.between(0, rows_ / 2 + 3));
  Ids labels;
  Ids values;
  for (std::size_t i = 0; i < ids.size(); ++i) labels.push_back(random_.between(-1, 2));
  for (std::int64_t i = 0; i < std::ssize(ids) * ncols; ++i)
    values.push_back(random_.between(-1, 2));
  if (ncols < 0) return;
  const std::int32_t status = qx_index_set_rowmeta(index_, ids.data(), labels.data(), values.data(),
                                                   ncols, static_cast<std::int32_t>(ids.size()));
  if (status == 0) ncols_ = ncols;
  gave("set_rowmeta", status);
}

void Life::set_ivf() {
  const std::int32_t nlist = random_.between32(0, 60);
  const std::int32_t nprobe = random_.between32(-1, nlist + 1);
  const Ids members = draw_ids(random_.between(0, rows_));
  std::vector<std::int32_t> offsets;
  for (std::int64_t c = 0; c <= nlist; ++c) {
    offsets.push_back(static_cast<std::int32_t>(std::ssize(members) * c / std::max(nlist, 1)));
  }
  const Floats centroids = draw_rows(nlist);
  const std::int64_t key = random_.between(0, kKeys - 1);
  gave("set_ivf", qx_index_set_ivf(index_, key, nlist, nprobe, centroids.data(), members.data(),
                                   offsets.data(), static_cast<std::int32_t>(members.size())));
}

void Life::mutate() {
  insert();
  erase();
  set_rowmeta();
  if (random_.percent(50)) set_ivf();
  if (random_.percent(10)) gave("clear_ivf", qx_index_clear_ivf(index_));
  if (random_.percent(10)) build();
}

void Life::search_sealed() {
  const Floats query = draw_rows(1);
  const std::int32_t k = draw_k(rows_);
  Slots full(k);
  gave("search_full",
       qx_index_search_full(index_, query.data(), k, full.ids.data(), full.scores.data()), full.ids,
       full.scores);
  const std::int64_t key = random_.between(-1, 2 * kPartitions);
  Slots part(k);
  gave("search_partition",
       qx_index_search_partition(index_, key, query.data(), k, part.ids.data(), part.scores.data()),
       part.ids, part.scores);
  const Ids ids = draw_ids(random_.between(0, rows_));
  Slots scattered(k);
  gave("scatter_topk",
       qx_index_scatter_topk(index_, ids.data(), static_cast<std::int32_t>(ids.size()),
                             query.data(), k, scattered.ids.data(), scattered.scores.data()),
       scattered.ids, scattered.scores);
}

void Life::search_ivf() {
  const Floats query = draw_rows(1);
  const std::int32_t k = draw_k(rows_);
  for (std::int64_t key = -1; key < kKeys; ++key) {
    gave("has_ivf", qx_index_has_ivf(index_, key));
    Slots found(k);
    gave("search_ivf",
         qx_index_search_ivf(index_, key, query.data(), k, found.ids.data(), found.scores.data()),
         found.ids, found.scores);
    gave("set_ivf_nprobe", qx_index_set_ivf_nprobe(index_, key, random_.between32(0, 50)));
  }
}

void Life::search_current() {
  const Floats query = draw_rows(1);
  const std::int32_t k = draw_k(rows_);
  const auto unsigned_k = static_cast<std::uint32_t>(k);
  const Ids ids = draw_ids(random_.between(0, rows_ + 2));
  Slots listed(k);
  gave("search_mvcc",
       qx_index_search_mvcc(index_, ids.data(), static_cast<std::int32_t>(ids.size()), query.data(),
                            unsigned_k, listed.ids.data(), listed.scores.data()),
       listed.ids, listed.scores);
  for (std::uint32_t mode = 0; mode < 3; ++mode) {
    const std::int32_t column = random_.between32(-1, ncols_);
    const std::int64_t value = random_.between(-1, 2);
    Slots found(k);
    gave("search_filtered",
         qx_index_search_filtered(index_, mode, column, value, query.data(), unsigned_k,
                                  found.ids.data(), found.scores.data()),
         found.ids, found.scores);
  }
}

void Life::list_current() {
  const std::int64_t count = qx_index_visible_count(index_);
  gave("visible_count", count);
  Ids visible = outputs(count, kUntouchedId);
  gave("visible_ids", qx_index_visible_ids(index_, visible.data()), visible);
  for (std::uint32_t mode = 0; mode < 3; ++mode) {
    const std::int32_t column = random_.between32(-1, ncols_);
    const std::int64_t value = random_.between(-1, 2);
    Ids matching = outputs(count, kUntouchedId);
    gave("match_ids", qx_index_match_ids(index_, mode, column, value, matching.data()), matching);
  }
}

void Life::export_all() {
  Ids base_ids = outputs(rows_, kUntouchedId);
  Floats base = outputs(rows_ * dim_, kUntouchedFloat);
  gave("export_base", qx_index_export_base(index_, base.data(), base_ids.data()), base_ids, base);
  const std::int64_t count = qx_index_visible_count(index_);
  Ids visible_ids = outputs(count, kUntouchedId);
  Floats visible = outputs(count * dim_, kUntouchedFloat);
  gave("export_visible", qx_index_export_visible(index_, visible.data(), visible_ids.data()),
       visible_ids, visible);
  const Ids asked = draw_ids(rows_ / 2 + 5);
  Ids labels = outputs(std::ssize(asked), kUntouchedId);
  Ids values = outputs(std::ssize(asked) * ncols_, kUntouchedId);
  gave("export_rowmeta",
       qx_index_export_rowmeta(index_, asked.data(), static_cast<std::uint32_t>(asked.size()),
                               labels.data(), values.data()),
       labels, values);
}

void Life::tune() {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  const std::int32_t status = qx_tuner_defaults(&first, &second);
  gave("tuner_defaults", status, first, second);
  Ids keys = outputs(kPartitions, kUntouchedId);
  Ids sizes = outputs(kPartitions, kUntouchedId);
  const std::int32_t threshold = random_.between32(-1, static_cast<std::int32_t>(rows_ / 2));
  gave("tuner_oversized", qx_index_tuner_oversized(index_, threshold, keys.data(), sizes.data()),
       keys, sizes);
}

std::string Life::play() {
  ask_about_index();
  if (random_.percent(50)) insert();
  list_current();
  build();
  set_ivf();
  for (int turn = 0; turn < 4; ++turn) {
    search_sealed();
    search_ivf();
    search_current();
    list_current();
    mutate();
    ask_about_index();
  }
  export_all();
  tune();
  gave("clear_ivf", qx_index_clear_ivf(index_));
  search_ivf();
  return digest_.text();
}

}  // namespace qx_test
