// Draws the arguments of each function of the interface.
#include <algorithm>
#include <iterator>

#include "call_sequences/generator.h"
#include "qx_runtime.h"

namespace qx_test {

// ---- Lifecycle and accessors ----

void Generator::renew() {
  add(Function::kFree);
  if (random_.percent(10)) add(Function::kFreeNull);
  add({Function::kNew, {draw_new_dim(), random_.percent(20) ? 0xFFFFFFFFu : 7u}});
  accessors();
}

void Generator::accessors() {
  for (const Function function :
       {Function::kStats, Function::kSnapshot, Function::kMutated, Function::kSealed,
        Function::kDeltaCount, Function::kFormatVersion}) {
    add(function);
  }
}

void Generator::tuner() {
  add(Function::kTunerDefaults);
  static const Ints thresholds = {INT32_MIN, -1, 0, 1, 5, 20, INT32_MAX};
  const std::int32_t threshold = model_.part_sizes.empty() || random_.percent(60)
                                     ? random_.any_of(thresholds)
                                     : random_.any_of(model_.part_sizes);
  add({Function::kTunerOversized, {threshold}});
}

// ---- The sealed base ----

void Generator::build() {
  if ((sparse_ || rebuilds_ == Rebuilds::kLeftOut) && model_.sealed) return;
  const std::int32_t dim = model_.sealed && random_.percent(70) ? model_.dim : draw_build_dim();
  const std::int64_t most = std::max<std::int64_t>(1, (long_ ? 40000 : 12000) / std::max(dim, 20));
  const std::int64_t usual = long_ || random_.percent(25) ? most : std::min<std::int64_t>(most, 40);
  const std::int64_t n = random_.percent(8) ? 0 : random_.between(long_ ? usual / 2 : 1, usual);
  const Floats vectors = draw_array(n * dim);
  const Ids ids = draw_base_ids(n);
  const std::int32_t n_parts = random_.between32(0, 6);
  Ids keys;
  Ints starts;
  Ints sizes;
  std::int64_t start = 0;
  for (std::int32_t p = 0; p < n_parts; ++p) {
    keys.push_back(random_.percent(5) ? static_cast<std::int64_t>(random_.bits())
                                      : random_.between(-3, 6));
    const std::int64_t size = random_.between(0, n - start);
    starts.push_back(static_cast<std::int32_t>(start));
    sizes.push_back(static_cast<std::int32_t>(size));
    start += random_.percent(80) ? size : 0;
    if (random_.percent(5)) starts.back() = random_.percent(50) ? -1 : INT32_MAX;
    if (random_.percent(5)) sizes.back() = random_.percent(50) ? -1 : INT32_MAX;
  }
  std::sort(keys.begin(), keys.end());
  add({Function::kBuild, {n, dim, n_parts}, vectors, ids, keys, {}, starts, sizes});
}

void Generator::rejected_build() {
  std::int64_t n = random_.between(1, 5);
  std::int32_t dim = random_.between32(0, 9);
  std::int32_t n_parts = 0;
  Ids ids = draw_base_ids(n);
  std::int64_t& spoiled_id = ids[static_cast<std::size_t>(random_.between(0, n - 1))];
  switch (random_.between(0, 6)) {
    case 0:
      spoiled_id = random_.percent(50) ? -1 : INT64_MIN;
      break;
    case 1:
      spoiled_id = random_.percent(50) ? QX_MAX_BASE_ID + 1 : INT64_MAX;
      break;
    case 2:
      dim = random_.percent(50) ? -1 : INT32_MIN;
      break;
    case 3:
      n_parts = random_.percent(50) ? -1 : INT32_MIN;
      break;
    case 4:
      n = random_.percent(50) ? -1 : INT64_MIN;
      break;
    case 5:
      n = (1LL << 40) + random_.between(1, 3);
      break;
    default:
      n = 1LL << 40;
      dim = random_.between32(2, INT32_MAX);
      break;
  }
  add({Function::kBuild, {n, dim, n_parts}, {}, ids});  // no vectors: the engine must not read them
  accessors();
}

void Generator::export_base() { add(Function::kExportBase); }

// ---- Exact search ----

void Generator::search_full() {
  add({Function::kSearchFull, {draw_k(model_.n_base())}, draw_query()});
}

void Generator::search_partition() {
  const Floats query = draw_query();
  const std::int32_t k = draw_k(10);
  const std::int64_t key = model_.part_keys.empty() || random_.percent(10)
                               ? draw_id()
                               : random_.any_of(model_.part_keys);
  add({Function::kSearchPartition, {key, k}, query});
}

void Generator::scatter_topk() {
  const Floats query = draw_query();
  const std::int32_t count = draw_candidate_count();
  const Ids candidates = draw_ids(count);
  const std::int32_t k = draw_k(count < 0 ? 1 : count);
  add({Function::kScatterTopk, {count, k}, query, candidates});
}

// ---- Mutation ----

void Generator::insert() {
  const std::int32_t n = draw_count();
  const Ids ids = draw_ids(n);
  const Floats vectors = draw_array(std::ssize(ids) * model_.width());
  add({Function::kInsert, {n}, vectors, ids});
}

void Generator::erase() {
  const std::int32_t n = draw_count();
  add({Function::kDelete, {n}, {}, draw_ids(n)});
}

// ---- IVF ----

void Generator::set_ivf() {
  const std::int64_t key = random_.percent(90) ? random_.between(-1, 2) : draw_id();
  std::int32_t nlist = random_.between32(1, 24);
  if (random_.percent(10)) nlist = random_.between32(-3, 0);
  if (random_.percent(10)) nlist = random_.between32(49, 130);
  std::int32_t nprobe = random_.between32(-1, 8);
  if (random_.percent(20)) nprobe = random_.between32(40, 130);
  if (random_.percent(5)) nprobe = INT32_MAX;
  const std::int64_t n_ids = random_.percent(10) ? 0 : random_.between(1, long_ ? 1200 : 120);
  const Ids list_ids = draw_ids(n_ids);
  const Ints offsets = draw_offsets(nlist, n_ids);
  // A product of two large negative numbers is a large positive one: too many floats for a test.
  const std::int64_t n_floats = std::int64_t{model_.dim} * nlist;
  if (n_floats > 100000) return;
  const Floats centroids = draw_array(n_floats);
  const auto count = static_cast<std::int32_t>(n_ids == 0 && random_.percent(50) ? -4 : n_ids);
  add({Function::kSetIvf, {key, nlist, nprobe, count}, centroids, list_ids, {}, {}, offsets});
}

void Generator::has_ivf() {
  const std::int64_t key = random_.percent(80) ? random_.between(-2, 3) : draw_id();
  add({Function::kHasIvf, {key}});
}

void Generator::clear_ivf() { add(Function::kClearIvf); }

void Generator::set_ivf_nprobe() {
  const std::int64_t key = random_.between(-2, 3);
  const std::int32_t nprobe = random_.percent(10) ? INT32_MIN : random_.between32(-1, 30);
  add({Function::kSetIvfNprobe, {key, nprobe}});
}

void Generator::search_ivf() {
  const std::int64_t key =
      model_.ivfs.empty() || random_.percent(15)
          ? random_.between(-2, 3)
          : std::next(model_.ivfs.begin(), random_.between(0, std::ssize(model_.ivfs) - 1))->first;
  const Floats query = draw_query();
  add({Function::kSearchIvf, {key, draw_small_k(20)}, query});
}

// ---- Current reads and metadata ----

void Generator::search_mvcc() {
  const Floats query = draw_query();
  const std::int32_t n = draw_candidate_count();
  const Ids candidates = draw_ids(n);
  const auto k = static_cast<std::uint32_t>(draw_small_k(std::max(n, 0)));
  add({Function::kSearchMvcc, {n, k}, query, candidates});
}

void Generator::set_rowmeta() {
  const std::int32_t n = draw_count();
  const auto current = static_cast<std::int32_t>(model_.columns.size());
  std::int32_t ncols = current + (random_.percent(25) && current < 5 ? 1 : 0);
  if (random_.percent(6)) ncols = random_.any_of(Ints{INT32_MIN, -1, 0});
  if (random_.percent(2)) ncols = current + random_.between32(1, 70);
  const Ids ids = draw_ids(n);
  Ids labels;
  Ids values;
  for (std::int64_t i = 0; i < std::ssize(ids); ++i) labels.push_back(random_.between(-1, 2));
  for (std::int64_t i = 0; i < std::ssize(ids) * ncols; ++i) {
    values.push_back(random_.percent(5) ? draw_id() : random_.between(-1, 2));
  }
  add({Function::kSetRowmeta, {ncols, n}, {}, ids, labels, values});
}

void Generator::export_rowmeta() {
  const std::int32_t n = draw_count();
  add({Function::kExportRowmeta, {n}, {}, draw_ids(n)});
}

void Generator::search_filtered() {
  Call call{Function::kSearchFiltered};
  draw_predicate(call);
  call.floats = draw_query();
  call.numbers[3] = static_cast<std::uint32_t>(draw_small_k(model_.n_base()));
  add(call);
}

void Generator::match_ids() {
  Call call{Function::kMatchIds};
  draw_predicate(call);
  add(call);
}

void Generator::visible() {
  add(Function::kVisibleCount);
  add(Function::kVisibleIds);
}

void Generator::export_visible() { add(Function::kExportVisible); }

}  // namespace qx_test
