// The calls of a history: for each function of the interface, how its arguments are drawn, what
// the model says, and what is compared.
#include <algorithm>
#include <iterator>

#include "histories/history.h"

namespace qx_test {
namespace {

constexpr std::int64_t kUntouched = 0x6B6B6B6B6B6B6B6B;

std::string numbers(std::initializer_list<std::int64_t> values) {
  std::string text;
  for (const std::int64_t value : values) {
    text += (text.empty() ? "" : ", ") + std::to_string(value);
  }
  return text;
}

}  // namespace

// ---- Lifecycle and accessors ----

void History::renew() {
  begin("qx_index_free", "");
  qx_index_free(index_);
  if (random_.percent(10)) {
    begin("qx_index_free", "null");
    qx_index_free(nullptr);
  }
  model_ = Model(draw_new_dim(), random_.percent(20) ? 0xFFFFFFFFu : 7u);
  begin("qx_index_new", "dim " + std::to_string(model_.dim));
  index_ = qx_index_new(static_cast<std::uint32_t>(model_.dim), model_.user_tag);
  accessors();
}

void History::accessors() {
  begin("qx_index_stats", "");
  std::uint64_t n_base = 1;
  std::uint32_t dim = 1;
  std::uint32_t tag = 1;
  std::int32_t n_parts = -1;
  check(qx_index_stats(index_, &n_base, &dim, &tag, &n_parts) == 0, "another result");
  check(n_base == model_.base_ids.size(), "another n_base");
  check(dim == static_cast<std::uint32_t>(model_.dim), "another dim");
  check(tag == model_.user_tag, "another tag");
  check(n_parts == std::ssize(model_.part_keys), "another n_parts");
  begin("qx_index_snapshot", "");
  check(qx_index_snapshot(index_) == model_.snapshot, "another snapshot");
  begin("qx_index_mutated", "");
  check(qx_index_mutated(index_) == (model_.mutated ? 1u : 0u), "another mutated");
  begin("qx_index_sealed", "");
  check(qx_index_sealed(index_) == (model_.sealed ? 1u : 0u), "another sealed");
  begin("qx_index_delta_count", "");
  check(qx_index_delta_count(index_) == std::ssize(model_.delta_ids), "another delta count");
  begin("qx_runtime_format_version", "");
  check(qx_runtime_format_version() == 1, "another version");
}

void History::tuner() {
  begin("qx_tuner_defaults", "");
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  check(qx_tuner_defaults(&first, &second) == 0, "another result");
  check(first == 20000 && second == 980, "other defaults");

  static const std::vector<std::int32_t> thresholds = {INT32_MIN, -1, 0, 1, 5, 20, INT32_MAX};
  const std::int32_t threshold = model_.part_sizes.empty() || random_.percent(60)
                                     ? random_.any_of(thresholds)
                                     : random_.any_of(model_.part_sizes);
  begin("qx_index_tuner_oversized", numbers({threshold}));
  Ids keys(model_.part_keys.size(), kUntouched);
  Ids sizes = keys;
  out_ids_.assign(keys, draw_edge());
  out_values_.assign(sizes, draw_edge());
  const std::int32_t listed = model_.tuner_oversized(threshold, keys, sizes);
  check(qx_index_tuner_oversized(index_, threshold, out_ids_.data(), out_values_.data()) == listed,
        "another result");
  check(out_ids_.equals(keys) && out_values_.equals(sizes), "other partitions");
}

// ---- The sealed base ----

void History::build() {
  if ((sparse_ || !may_rebuild_) && model_.sealed) return;
  rebuilt_ |= model_.sealed;
  const std::int32_t dim = model_.sealed && random_.percent(70) ? model_.dim : draw_build_dim();
  const std::int64_t most = std::max<std::int64_t>(1, (long_ ? 40000 : 12000) / std::max(dim, 20));
  const std::int64_t usual = long_ || random_.percent(25) ? most : std::min<std::int64_t>(most, 40);
  const std::int64_t n = random_.percent(8) ? 0 : random_.between(long_ ? usual / 2 : 1, usual);
  const Floats vectors = draw_array(n * dim);
  const Ids ids = draw_base_ids(n);
  const std::int32_t n_parts = random_.between32(0, 6);
  Ids keys;
  std::vector<std::int32_t> starts;
  std::vector<std::int32_t> sizes;
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
  begin("qx_index_build", "n, dim, n_parts = " + numbers({n, dim, n_parts}));
  const std::int32_t result = qx_index_build(index_, input(vectors), n, dim, input(ids),
                                             input(keys), input(starts), input(sizes), n_parts);
  check(result == model_.build(vectors, n, dim, ids, keys, starts, sizes, n_parts),
        "another result");
}

void History::rejected_build() {
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
      spoiled_id = random_.percent(50) ? 1LL << 40 : INT64_MAX;
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
  const Floats vectors;  // an address that must not be read
  begin("qx_index_build", "rejected, n, dim, n_parts = " + numbers({n, dim, n_parts}));
  const std::int32_t expected = model_.build(vectors, n, dim, ids, {}, {}, {}, n_parts);
  check(expected == -1, "a model that accepts what was drawn to be rejected");
  check(qx_index_build(index_, input(vectors), n, dim, input(ids), nullptr, nullptr, nullptr,
                       n_parts) == expected,
        "another result");
  accessors();
}

void History::export_base() {
  begin("qx_index_export_base", "");
  compare_search(
      model_.n_base(), std::ssize(model_.base_vectors),
      [&](Ids& ids, Floats& floats) { return model_.export_base(floats, ids); },
      [&](std::int64_t* ids, float* floats) { return qx_index_export_base(index_, floats, ids); });
}

// ---- Exact search ----

void History::search_full() {
  const Floats query = draw_query();
  const std::int32_t k = draw_k(model_.n_base());
  begin("qx_index_search_full", numbers({k}));
  const float* const placed = input(query);
  const auto granted = std::max<std::int64_t>(0, std::min<std::int64_t>(k, model_.n_base()));
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) { return model_.search_full(query, k, ids, scores); },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_search_full(index_, placed, k, ids, scores);
      });
}

void History::search_partition() {
  const Floats query = draw_query();
  const std::int32_t k = draw_k(10);
  const std::int64_t key = model_.part_keys.empty() || random_.percent(10)
                               ? draw_id()
                               : random_.any_of(model_.part_keys);
  begin("qx_index_search_partition", numbers({key, k}));
  const float* const placed = input(query);
  Ids most_ids(static_cast<std::size_t>(model_.n_base()));
  Floats most_scores(most_ids.size());
  const std::int64_t granted = model_.search_partition(key, query, k, most_ids, most_scores);
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) { return model_.search_partition(key, query, k, ids, scores); },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_search_partition(index_, key, placed, k, ids, scores);
      });
}

void History::scatter_topk() {
  const Floats query = draw_query();
  const std::int32_t count = draw_candidate_count();
  const Ids candidates = draw_ids(count);
  const std::int32_t k = draw_k(count < 0 ? 1 : count);
  begin("qx_index_scatter_topk", numbers({count, k}));
  const float* const placed = input(query);
  const std::int64_t* const placed_ids = input(candidates);
  const std::int64_t granted = std::max<std::int64_t>(0, std::min(k, count));
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) {
        return model_.scatter_topk(candidates, count, query, k, ids, scores);
      },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_scatter_topk(index_, placed_ids, count, placed, k, ids, scores);
      });
}

// ---- Mutation ----

void History::insert() {
  const std::int32_t n = draw_count();
  const Ids ids = draw_ids(n);
  const Floats vectors = draw_array(std::ssize(ids) * model_.width());
  begin("qx_index_insert", numbers({n}));
  const float* const placed = input(vectors);
  const std::int64_t* const placed_ids = input(ids);
  std::uint64_t expected = 0;
  try {
    expected = model_.insert(vectors, ids);
  } catch (const OutOfBounds& end) {
    expect_end(end, [&] { qx_index_insert(index_, placed, placed_ids, n); });
    ended_ = true;  // the model has done half of the call
    return;
  }
  check(qx_index_insert(index_, placed, placed_ids, n) == expected, "another result");
}

void History::erase() {
  const std::int32_t n = draw_count();
  const Ids ids = draw_ids(n);
  begin("qx_index_delete", numbers({n}));
  check(qx_index_delete(index_, input(ids), n) == model_.erase(ids), "another result");
}

// ---- IVF ----

void History::set_ivf() {
  const std::int64_t key = random_.percent(90) ? random_.between(-1, 2) : draw_id();
  std::int32_t nlist = random_.between32(1, 24);
  if (random_.percent(10)) nlist = random_.between32(-3, 0);
  if (random_.percent(10)) nlist = random_.between32(49, 130);
  std::int32_t nprobe = random_.between32(-1, 8);
  if (random_.percent(20)) nprobe = random_.between32(40, 130);
  if (random_.percent(5)) nprobe = INT32_MAX;
  const std::int64_t n_ids = random_.percent(10) ? 0 : random_.between(1, long_ ? 1200 : 120);
  const Ids list_ids = draw_ids(n_ids);
  const std::vector<std::int32_t> offsets = draw_offsets(nlist, n_ids);
  // Two large negative numbers have a large positive product, too large to hand over here.
  const std::int64_t n_floats = std::int64_t{model_.dim} * nlist;
  if (n_floats > 100000) return;
  const Floats centroids = draw_array(n_floats);
  const auto count = static_cast<std::int32_t>(n_ids == 0 && random_.percent(50) ? -4 : n_ids);
  begin("qx_index_set_ivf", "key, nlist, nprobe, n_ids = " + numbers({key, nlist, nprobe, count}));
  check(qx_index_set_ivf(index_, key, nlist, nprobe, input(centroids), input(list_ids),
                         input(offsets), count) == 0,
        "another result");
  model_.ivfs[key] = {nlist, nprobe, centroids, list_ids, offsets};
}

void History::has_ivf() {
  const std::int64_t key = random_.percent(80) ? random_.between(-2, 3) : draw_id();
  begin("qx_index_has_ivf", numbers({key}));
  check(qx_index_has_ivf(index_, key) == static_cast<std::int32_t>(model_.ivfs.count(key)),
        "another result");
}

void History::clear_ivf() {
  begin("qx_index_clear_ivf", "");
  check(qx_index_clear_ivf(index_) == 0, "another result");
  model_.ivfs.clear();
}

void History::set_ivf_nprobe() {
  const std::int64_t key = random_.between(-2, 3);
  const std::int32_t nprobe = random_.percent(10) ? INT32_MIN : random_.between32(-1, 30);
  begin("qx_index_set_ivf_nprobe", numbers({key, nprobe}));
  check(qx_index_set_ivf_nprobe(index_, key, nprobe) == model_.set_ivf_nprobe(key, nprobe),
        "another result");
}

void History::search_ivf() {
  const std::int64_t key =
      model_.ivfs.empty() || random_.percent(15)
          ? random_.between(-2, 3)
          : std::next(model_.ivfs.begin(), random_.between(0, std::ssize(model_.ivfs) - 1))->first;
  const Floats query = draw_query();
  const std::int32_t k = draw_small_k(20);
  begin("qx_index_search_ivf", numbers({key, k}));
  const float* const placed = input(query);
  const std::int64_t granted = std::max(0, k);
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) { return model_.search_ivf(key, query, k, ids, scores); },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_search_ivf(index_, key, placed, k, ids, scores);
      });
}

// ---- Current reads and metadata ----

void History::search_mvcc() {
  const Floats query = draw_query();
  const std::int32_t n = draw_candidate_count();
  const Ids candidates = draw_ids(n);
  const auto k = static_cast<std::uint32_t>(draw_small_k(std::max(n, 0)));
  begin("qx_index_search_mvcc", numbers({n, k}));
  const float* const placed = input(query);
  const std::int64_t* const placed_ids = input(candidates);
  const std::int64_t granted = std::max(0, static_cast<std::int32_t>(k));
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) {
        return model_.search_mvcc(candidates, query, k, ids, scores);
      },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_search_mvcc(index_, placed_ids, n, placed, k, ids, scores);
      });
}

void History::set_rowmeta() {
  const std::int32_t n = draw_count();
  const auto current = static_cast<std::int32_t>(model_.columns.size());
  std::int32_t ncols = current + (random_.percent(25) && current < 5 ? 1 : 0);
  if (random_.percent(6)) ncols = random_.any_of(std::vector<std::int32_t>{INT32_MIN, -1, 0});
  if (random_.percent(2)) ncols = current + random_.between32(1, 70);
  const Ids ids = draw_ids(n);
  Ids labels;
  Ids values;
  for (std::int64_t i = 0; i < std::ssize(ids); ++i) labels.push_back(random_.between(-1, 2));
  for (std::int64_t i = 0; i < std::ssize(ids) * ncols; ++i) {
    values.push_back(random_.percent(5) ? draw_id() : random_.between(-1, 2));
  }
  begin("qx_index_set_rowmeta", "ncols, n = " + numbers({ncols, n}));
  check(qx_index_set_rowmeta(index_, input(ids), input(labels), input(values), ncols, n) ==
            model_.set_rowmeta(ids, labels, values, ncols),
        "another result");
}

void History::export_rowmeta() {
  const std::int32_t n = draw_count();
  const Ids ids = draw_ids(n);
  begin("qx_index_export_rowmeta", numbers({n}));
  Ids labels(ids.size(), kUntouched);
  Ids values(ids.size() * model_.columns.size(), kUntouched);
  out_ids_.assign(labels, draw_edge());
  out_values_.assign(values, draw_edge());
  check(qx_index_export_rowmeta(index_, input(ids), static_cast<std::uint32_t>(n), out_ids_.data(),
                                out_values_.data()) == model_.export_rowmeta(ids, labels, values),
        "another result");
  check(out_ids_.equals(labels), "other labels");
  check(out_values_.equals(values), "other values");
}

void History::search_filtered() {
  const Predicate predicate = draw_predicate();
  const Floats query = draw_query();
  const auto k = static_cast<std::uint32_t>(draw_small_k(model_.n_base()));
  begin("qx_index_search_filtered",
        "mode, column, value, k = " +
            numbers({predicate.mode, predicate.column, predicate.value, k}));
  const float* const placed = input(query);
  const std::int64_t granted = std::max(0, static_cast<std::int32_t>(k));
  compare_search(
      granted, granted,
      [&](Ids& ids, Floats& scores) {
        return model_.search_filtered(predicate, query, k, ids, scores);
      },
      [&](std::int64_t* ids, float* scores) {
        return qx_index_search_filtered(index_, predicate.mode, predicate.column, predicate.value,
                                        placed, k, ids, scores);
      });
}

void History::match_ids() {
  const Predicate predicate = draw_predicate();
  begin("qx_index_match_ids",
        "mode, column, value = " + numbers({predicate.mode, predicate.column, predicate.value}));
  compare_search(
      model_.visible_count(), 0,
      [&](Ids& ids, Floats&) { return model_.match_ids(predicate, ids); },
      [&](std::int64_t* ids, float*) {
        return qx_index_match_ids(index_, predicate.mode, predicate.column, predicate.value, ids);
      });
}

void History::visible() {
  begin("qx_index_visible_count", "");
  check(qx_index_visible_count(index_) == model_.visible_count(), "another result");
  begin("qx_index_visible_ids", "");
  compare_search(
      model_.visible_count(), 0,
      [&](Ids& ids, Floats&) {
        return model_.match_ids({0, 0, 0}, ids);
      },
      [&](std::int64_t* ids, float*) { return qx_index_visible_ids(index_, ids); });
}

void History::export_visible() {
  begin("qx_index_export_visible", "");
  const std::int64_t rows = model_.visible_count();
  compare_search(
      rows, rows * model_.width(),
      [&](Ids& ids, Floats& floats) { return model_.export_visible(floats, ids); },
      [&](std::int64_t* ids, float* floats) {
        return qx_index_export_visible(index_, floats, ids);
      });
}

}  // namespace qx_test
