// The naive model: a second, deliberately plain implementation of the engine's behaviour, over
// standard containers. It is the oracle of the random call sequences, so it shares no code with the
// engine: it finds an id by looking at every row, and results by sorting every candidate. It
// states the values of the header's constants again, so that a wrong constant is noticed.
//
// Output arguments contain what the host's buffers contained before the call, and are changed where
// the contract writes; a buffer must have the elements that the contract grants. If the contract
// ends the process, the model throws OutOfBounds instead.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <vector>

namespace qx_test {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using Ints = std::vector<std::int32_t>;

// Thrown where the engine ends the process, with the numbers that its last line names.
struct OutOfBounds {
  std::int64_t index;
  std::int64_t length;
};

// Element `index`, with the bounds check that the contract prescribes for every array of host data.
template <typename T>
const T& checked(const std::vector<T>& elements, std::int64_t index) {
  const auto length = static_cast<std::int64_t>(elements.size());
  if (index < 0 || index >= length) throw OutOfBounds{index, length};
  return elements[static_cast<std::size_t>(index)];
}

class Model {
 public:
  struct Ivf {
    std::int32_t nlist;
    std::int32_t nprobe;
    Floats centroids;
    Ids list_ids;
    Ints list_offsets;
  };

  // A predicate over metadata.
  struct Predicate {
    std::uint32_t mode;
    std::int32_t column;
    std::int64_t value;
  };

  Model(std::uint32_t new_dim, std::uint32_t new_tag)
      : dim(static_cast<std::int32_t>(new_dim)), user_tag(new_tag) {}

  // The state, public for the generator of call sequences, which sizes buffers by it.
  std::int32_t dim;
  std::uint32_t user_tag;
  bool sealed = false;
  Floats base_vectors;
  Ids base_ids;
  Ids part_keys;
  Ints part_starts;
  Ints part_sizes;
  std::uint64_t snapshot = 0;
  bool mutated = false;
  Ids delta_ids;
  Floats delta_vectors;
  std::map<std::int64_t, std::uint64_t> deleted;  // no key means not deleted
  std::map<std::int64_t, std::int64_t> labels;
  std::vector<std::map<std::int64_t, std::int64_t>> columns;
  std::map<std::int64_t, Ivf> ivfs;

  std::int64_t n_base() const { return static_cast<std::int64_t>(base_ids.size()); }
  std::int64_t width() const { return std::max(dim, 0); }

  // ---- The sealed base ----

  std::int32_t build(const Floats& vectors, std::int64_t n, std::int32_t new_dim, const Ids& ids,
                     const Ids& keys, const Ints& starts, const Ints& sizes, std::int32_t n_parts) {
    constexpr std::int64_t kLimit = 1099511627776;
    if (new_dim < 0 || n_parts < 0 || n < 0 || n > kLimit) return -1;
    if (new_dim > 0 && n > kLimit / new_dim) return -1;
    for (const std::int64_t id : ids) {
      if (id < 0 || id >= kLimit) return -1;
    }
    base_vectors = vectors;
    base_ids = ids;
    part_keys = keys;
    part_starts = starts;
    part_sizes = sizes;
    dim = new_dim;
    sealed = true;
    return 0;
  }

  std::int64_t export_base(Floats& out_vectors, Ids& out_ids) const {
    std::copy(base_vectors.begin(), base_vectors.end(), out_vectors.begin());
    std::copy(base_ids.begin(), base_ids.end(), out_ids.begin());
    return n_base();
  }

  // ---- Exact search ----

  std::int32_t search_full(const Floats& query, std::int32_t k, Ids& out_ids,
                           Floats& out_scores) const {
    return search_range(0, n_base(), query, k, out_ids, out_scores);
  }

  std::int32_t search_partition(std::int64_t key, const Floats& query, std::int32_t k, Ids& out_ids,
                                Floats& out_scores) const {
    const std::int64_t p = partition_of(key);
    if (p < 0) return 0;
    const std::int64_t start = part_starts[static_cast<std::size_t>(p)];
    const std::int64_t size = part_sizes[static_cast<std::size_t>(p)];
    if (start < 0 || size < 0 || start + size > n_base()) return 0;
    return search_range(start, size, query, k, out_ids, out_scores);
  }

  std::int32_t scatter_topk(const Ids& candidates, const Floats& query, std::int32_t k,
                            Ids& out_ids, Floats& out_scores) const {
    const std::int32_t results = std::min(k, static_cast<std::int32_t>(candidates.size()));
    if (!sealed || results < 1) return 0;
    std::vector<Hit> hits;
    for (const std::int64_t id : candidates) {
      const std::int64_t row = base_row(id);
      if (row >= 0) hits.push_back({id, base_score(row, query)});
    }
    write_best(hits, results, out_ids, out_scores);
    return results;
  }

  std::int32_t tuner_oversized(std::int32_t threshold, Ids& keys, Ids& sizes) const {
    std::size_t listed = 0;
    for (std::size_t p = 0; p < part_keys.size(); ++p) {
      if (part_sizes[p] < threshold) continue;
      keys[listed] = part_keys[p];
      sizes[listed++] = part_sizes[p];
    }
    return static_cast<std::int32_t>(listed);
  }

  // ---- Mutation ----

  std::uint64_t insert(const Floats& vectors, const Ids& ids) {
    if (ids.empty()) return snapshot;
    mutated = true;
    ++snapshot;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      deleted.erase(ids[i]);
      const Floats vector(vectors.begin() + static_cast<std::int64_t>(i) * width(),
                          vectors.begin() + static_cast<std::int64_t>(i + 1) * width());
      const std::int64_t row = delta_row(ids[i]);
      if (row < 0) {
        delta_ids.push_back(ids[i]);
        delta_vectors.insert(delta_vectors.end(), vector.begin(), vector.end());
        continue;
      }
      for (std::int64_t j = 0; j < width(); ++j) {
        checked(delta_vectors, row * width() + j);
        delta_vectors[static_cast<std::size_t>(row * width() + j)] =
            vector[static_cast<std::size_t>(j)];
      }
    }
    return snapshot;
  }

  std::uint64_t erase(const Ids& ids) {
    if (ids.empty()) return snapshot;
    mutated = true;
    ++snapshot;
    for (const std::int64_t id : ids) deleted[id] = snapshot;
    return snapshot;
  }

  // ---- IVF ----

  std::int64_t set_ivf_nprobe(std::int64_t key, std::int32_t nprobe) {
    const auto found = ivfs.find(key);
    if (found == ivfs.end()) return -1;
    found->second.nprobe = nprobe;
    return 0;
  }

  std::int32_t search_ivf(std::int64_t key, const Floats& query, std::int32_t k, Ids& out_ids,
                          Floats& out_scores) const {
    const auto found = ivfs.find(key);
    if (found == ivfs.end() || k < 1 || found->second.nlist < 1) return 0;
    const Ivf& ivf = found->second;
    std::vector<Hit> hits;
    for (const std::int64_t list : lists_to_probe(ivf, query)) {
      const std::int64_t end = checked(ivf.list_offsets, list + 1);
      for (std::int64_t p = checked(ivf.list_offsets, list); p < end; ++p) {
        const std::int64_t id = checked(ivf.list_ids, p);
        const std::int64_t row = base_row(id);
        if (row >= 0) hits.push_back({id, base_score(row, query)});
      }
    }
    write_best(hits, k, out_ids, out_scores);
    return k;
  }

  // ---- Current reads ----

  std::int64_t search_mvcc(const Ids& ids, const Floats& query, std::int32_t k, Ids& out_ids,
                           Floats& out_scores) const {
    if (k < 1) return 0;
    std::vector<Hit> hits;
    for (const std::int64_t id : ids) {
      if (deleted.count(id) != 0) continue;
      if (const std::int64_t row = delta_row(id); row >= 0) {
        hits.push_back({id, score(delta_vector(row), query)});
      } else if (const std::int64_t sealed_row = base_row(id); sealed_row >= 0) {
        hits.push_back({id, base_score(sealed_row, query)});
      }
    }
    write_best(hits, k, out_ids, out_scores);
    return k;
  }

  std::int64_t search_filtered(const Predicate& predicate, const Floats& query, std::int32_t k,
                               Ids& out_ids, Floats& out_scores) const {
    if (k < 1) return 0;
    std::vector<Hit> hits;
    for (const Row& row : visible_rows(predicate)) {
      hits.push_back({row.id, score(vector_of(row), query)});
    }
    write_best(hits, k, out_ids, out_scores);
    return k;
  }

  std::int64_t match_ids(const Predicate& predicate, Ids& out_ids) const {
    std::size_t count = 0;
    for (const Row& row : visible_rows(predicate)) out_ids[count++] = row.id;
    return static_cast<std::int64_t>(count);
  }

  std::int64_t visible_count() const {
    return static_cast<std::int64_t>(visible_rows({0, 0, 0}).size());
  }

  std::int64_t export_visible(Floats& out_vectors, Ids& out_ids) const {
    std::size_t count = 0;
    std::size_t floats = 0;
    for (const Row& row : visible_rows({0, 0, 0})) {
      for (const float element : vector_of(row)) out_vectors[floats++] = element;
      out_ids[count++] = row.id;
    }
    return static_cast<std::int64_t>(count);
  }

  // ---- Metadata ----

  std::int32_t set_rowmeta(const Ids& ids, const Ids& new_labels, const Ids& values,
                           std::int32_t ncols) {
    if (ncols < static_cast<std::int32_t>(columns.size())) return -1;
    const auto width_of_row = static_cast<std::size_t>(ncols);
    columns.resize(width_of_row);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      labels[ids[i]] = new_labels[i];
      for (std::size_t c = 0; c < width_of_row; ++c) {
        columns[c][ids[i]] = values[i * width_of_row + c];
      }
    }
    return 0;
  }

  std::int32_t export_rowmeta(const Ids& ids, Ids& out_labels, Ids& out_values) const {
    std::size_t written = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      out_labels[i] = value_or_missing(labels, ids[i]);
      for (const auto& column : columns) out_values[written++] = value_or_missing(column, ids[i]);
    }
    return static_cast<std::int32_t>(columns.size());
  }

 private:
  struct Hit {
    std::int64_t id;
    float score;
  };
  struct Row {
    std::int64_t id;
    std::int64_t position;
    bool in_delta;
  };

  static float score(const Floats& vector, const Floats& query) {
    float sum = 0.0f;
    for (std::size_t j = 0; j < vector.size(); ++j) sum = std::fma(vector[j], query[j], sum);
    return sum;
  }

  // Sorts the candidates that may enter; a stable sort keeps equal scores in order of arrival.
  static void write_best(std::vector<Hit> hits, std::int64_t results, Ids& out_ids,
                         Floats& out_scores) {
    const auto beats_nothing = [](const Hit& hit) { return !(hit.score > -1e30f); };
    hits.erase(std::remove_if(hits.begin(), hits.end(), beats_nothing), hits.end());
    std::stable_sort(hits.begin(), hits.end(),
                     [](const Hit& a, const Hit& b) { return a.score > b.score; });
    hits.resize(static_cast<std::size_t>(results), Hit{-1, -1e30f});
    for (std::size_t slot = 0; slot < hits.size(); ++slot) {
      out_ids[slot] = hits[slot].id;
      out_scores[slot] = hits[slot].score;
    }
  }

  static std::int64_t value_or_missing(const std::map<std::int64_t, std::int64_t>& values,
                                       std::int64_t id) {
    const auto found = values.find(id);
    return found == values.end() ? -1 : found->second;
  }

  std::int32_t search_range(std::int64_t start, std::int64_t size, const Floats& query,
                            std::int32_t k, Ids& out_ids, Floats& out_scores) const {
    const std::int64_t results = std::min<std::int64_t>(size, k);
    if (results < 1) return 0;
    std::vector<Hit> hits;
    for (std::int64_t row = start; row < start + size; ++row) {
      hits.push_back({base_ids[static_cast<std::size_t>(row)], base_score(row, query)});
    }
    write_best(hits, results, out_ids, out_scores);
    return static_cast<std::int32_t>(results);
  }

  // Binary search, because it decides which of several equal keys is found.
  std::int64_t partition_of(std::int64_t key) const {
    std::int64_t low = 0;
    std::int64_t high = static_cast<std::int64_t>(part_keys.size()) - 1;
    while (low <= high) {
      const std::int64_t middle = (low + high) / 2;
      const std::int64_t there = part_keys[static_cast<std::size_t>(middle)];
      if (there == key) return middle;
      (there < key ? low : high) = there < key ? middle + 1 : middle - 1;
    }
    return -1;
  }

  // The last base row of an id, or -1.
  std::int64_t base_row(std::int64_t id) const {
    for (std::int64_t row = n_base() - 1; row >= 0; --row) {
      if (base_ids[static_cast<std::size_t>(row)] == id) return row;
    }
    return -1;
  }

  std::int64_t delta_row(std::int64_t id) const {
    const auto found = std::find(delta_ids.begin(), delta_ids.end(), id);
    return found == delta_ids.end() ? -1 : found - delta_ids.begin();
  }

  float base_score(std::int64_t row, const Floats& query) const {
    return score(
        Floats(base_vectors.begin() + row * width(), base_vectors.begin() + (row + 1) * width()),
        query);
  }

  Floats delta_vector(std::int64_t row) const {
    Floats vector;
    for (std::int64_t j = 0; j < width(); ++j) {
      vector.push_back(checked(delta_vectors, row * width() + j));
    }
    return vector;
  }

  Floats vector_of(const Row& row) const {
    if (row.in_delta) return delta_vector(row.position);
    return Floats(base_vectors.begin() + row.position * width(),
                  base_vectors.begin() + (row.position + 1) * width());
  }

  bool passes(const Predicate& predicate, std::int64_t id) const {
    if (predicate.mode == 0) return true;
    if (predicate.mode == 1) return value_or_missing(labels, id) == predicate.value;
    if (predicate.column < 0) return false;
    const auto column = static_cast<std::size_t>(predicate.column);
    return column < columns.size() && value_or_missing(columns[column], id) == predicate.value;
  }

  std::vector<Row> visible_rows(const Predicate& predicate) const {
    std::vector<Row> rows;
    for (std::int64_t p = 0; p < static_cast<std::int64_t>(delta_ids.size()); ++p) {
      rows.push_back({delta_ids[static_cast<std::size_t>(p)], p, true});
    }
    for (std::int64_t r = 0; r < n_base(); ++r) {
      const std::int64_t id = base_ids[static_cast<std::size_t>(r)];
      if (delta_row(id) < 0) rows.push_back({id, r, false});
    }
    const auto hidden = [&](const Row& row) {
      return deleted.count(row.id) != 0 || !passes(predicate, row.id);
    };
    rows.erase(std::remove_if(rows.begin(), rows.end(), hidden), rows.end());
    return rows;
  }

  // The lists of the best centroids, best first; among equal scores in list order.
  std::vector<std::int64_t> lists_to_probe(const Ivf& ivf, const Floats& query) const {
    std::vector<Hit> coarse;
    for (std::int64_t list = 0; list < ivf.nlist; ++list) {
      Floats centroid;
      for (std::int64_t j = 0; j < width(); ++j) {
        centroid.push_back(checked(ivf.centroids, list * width() + j));
      }
      coarse.push_back({list, score(centroid, query)});
    }
    Ids order(coarse.size());
    Floats ignored(coarse.size());
    write_best(coarse, ivf.nlist, order, ignored);
    const auto probes = std::min<std::int64_t>(std::max(ivf.nprobe, 0), ivf.nlist);
    order.resize(static_cast<std::size_t>(probes));
    order.erase(std::remove(order.begin(), order.end(), -1), order.end());
    return order;
  }
};

}  // namespace qx_test
