// IVF structures of a sharded index: all centroids are on every rank, and of each list the rows
// of that rank.
#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {
namespace {

// An arrival through lists: the probe above the place in the list, which is below 2^40.
constexpr int kPlaceBits = 40;
constexpr std::int64_t kMostLists = std::int64_t{1} << 22;

}  // namespace

// Checks the centroids that rank 0 was given, and gives their number.
std::int32_t ShardedIndex::check_centroids(std::int32_t nprobe, Floats centroids) const {
  require(centroids.size() % at(dim_) == 0,
          "the centroids are " + std::to_string(centroids.size()) +
              " floats, no multiple of the dimension " + std::to_string(dim_));
  const std::int64_t lists = std::ssize(centroids) / dim_;
  require(lists <= kMostLists, "there are more than 2^22 lists");
  require(nprobe >= 0, "nprobe is " + std::to_string(nprobe) + ", and must be 0 or more");
  return static_cast<std::int32_t>(lists);
}

void ShardedIndex::set_ivf(std::int64_t key, std::int32_t nprobe, Floats centroids, Ids list_ids,
                           std::span<const std::int32_t> list_offsets) {
  check_whole();
  const IvfShape shape = ranks_.from_root([&] {
    const std::int32_t lists = check_centroids(nprobe, centroids);
    require(std::ssize(list_offsets) == lists + 1, std::to_string(list_offsets.size()) +
                                                       " offsets for " + std::to_string(lists) +
                                                       " lists; n lists have n + 1");
    std::int32_t last = 0;
    for (const std::int32_t offset : list_offsets) {
      require(offset >= last && offset <= std::ssize(list_ids),
              "an offset is " + std::to_string(offset) + ", outside " + std::to_string(last) +
                  " to " + std::to_string(list_ids.size()));
      last = offset;
    }
    return IvfShape{key, nprobe, lists};
  });
  Ivf ivf = share_centroids(shape, centroids);
  const std::vector<std::int64_t> all = shared_ids(list_ids);
  std::vector<std::int32_t> offsets;
  ranks_.together([&] {
    offsets.resize(at(shape.nlist) + 1);
    if (ranks_.is_root()) std::copy(list_offsets.begin(), list_offsets.end(), offsets.begin());
  });
  ranks_.broadcast(std::span(offsets));
  ranks_.together([&] { place_rows(ivf, all, offsets); });
  attach(shape.key, ivf);
}

void ShardedIndex::set_ivf_by_row(std::int64_t key, std::int32_t nprobe, Floats centroids,
                                  std::span<const std::int32_t> list_of_row) {
  check_whole();
  const IvfShape shape = ranks_.from_root([&] {
    return IvfShape{key, nprobe, check_centroids(nprobe, centroids)};
  });
  Ivf ivf = share_centroids(shape, centroids);
  ranks_.together([&] { place_own_rows(ivf, list_of_row); });
  attach(shape.key, ivf);
}

// A structure without lists, whose centroids are rank 0's.
ShardedIndex::Ivf ShardedIndex::share_centroids(const IvfShape& shape, Floats centroids) const {
  std::vector<float> middles;
  ranks_.together([&] {
    middles.resize(at(shape.nlist) * at(dim_));
    if (ranks_.is_root()) std::copy(centroids.begin(), centroids.end(), middles.begin());
  });
  ranks_.broadcast(std::span(middles));
  std::optional<Ivf> made;
  ranks_.together([&] {
    std::vector<std::int64_t> numbers(at(shape.nlist));
    std::iota(numbers.begin(), numbers.end(), 0);
    Index engine(dim_);
    engine.build(middles, numbers);
    made.emplace(Ivf{.nprobe = shape.nprobe,
                     .nlist = shape.nlist,
                     .n_ids = 0,
                     .centroids = std::move(engine),
                     .rows = {},
                     .begins = {},
                     .list_of_row = {},
                     .place_of_row = {}});
  });
  return std::move(*made);
}

// Makes a structure the one of its key.
void ShardedIndex::attach(std::int64_t key, Ivf& ivf) {
  ivf.n_ids = ranks_.sum(std::ssize(ivf.rows));
  std::map<std::int64_t, Ivf> made;
  ranks_.together([&] {
    // A search offers up to all of them to the engine at once.
    require_countable(ivf.rows.size(), "rows of a rank in lists");
    made.emplace(key, std::move(ivf));
  });
  ivfs_.erase(key);
  ivfs_.merge(made);
}

// Keeps of each list the rows of this rank.
void ShardedIndex::place_rows(Ivf& ivf, Ids list_ids,
                              std::span<const std::int32_t> list_offsets) const {
  ivf.list_of_row.assign(at(rows_), -1);
  ivf.place_of_row.assign(at(rows_), 0);
  for (std::int32_t list = 0; list < ivf.nlist; ++list) {
    ivf.begins.push_back(ivf.rows.size());
    const std::int32_t begin = list_offsets[at(list)];
    for (std::int32_t i = begin; i < list_offsets[at(list) + 1]; ++i) {
      const std::int64_t row = find_row(list_ids[at(i)]);
      if (row < 0) continue;
      require(ivf.list_of_row[at(row)] < 0,
              "the id " + std::to_string(list_ids[at(i)]) + " stands in the lists twice");
      ivf.list_of_row[at(row)] = list;
      ivf.place_of_row[at(row)] = i - begin;
      ivf.rows.push_back(row);
    }
  }
  ivf.begins.push_back(ivf.rows.size());
}

// Sorts this rank's rows by their lists. Ranks follow each other in the base, so that a row's place
// in the list of all ranks may be its number in the whole base.
void ShardedIndex::place_own_rows(Ivf& ivf, std::span<const std::int32_t> list_of_row) const {
  require(std::ssize(list_of_row) == rows_, std::to_string(list_of_row.size()) +
                                                " numbers of lists for " + std::to_string(rows_) +
                                                " rows");
  ivf.begins.assign(at(ivf.nlist) + 1, 0);
  for (const std::int32_t list : list_of_row) {
    require(list >= -1 && list < ivf.nlist, "a row's list is " + std::to_string(list) +
                                                ", outside -1 to " + std::to_string(ivf.nlist - 1));
    if (list >= 0) ++ivf.begins[at(list) + 1];
  }
  std::partial_sum(ivf.begins.begin(), ivf.begins.end(), ivf.begins.begin());
  ivf.rows.resize(ivf.begins.back());
  ivf.list_of_row.assign(list_of_row.begin(), list_of_row.end());
  ivf.place_of_row.resize(at(rows_));
  std::iota(ivf.place_of_row.begin(), ivf.place_of_row.end(), first_row_);
  std::vector<std::size_t> next = ivf.begins;
  for (std::int64_t row = 0; row < rows_; ++row) {
    const std::int32_t list = list_of_row[at(row)];
    if (list >= 0) ivf.rows[next[at(list)]++] = row;
  }
}

void ShardedIndex::set_ivf_nprobe(std::int64_t key, std::int32_t nprobe) {
  check_whole();
  struct Probes {
    std::int64_t key;
    std::int32_t nprobe;
  };
  const Probes probes = ranks_.from_root([&] {
    require(nprobe >= 0, "nprobe is " + std::to_string(nprobe) + ", and must be 0 or more");
    require(ivfs_.count(key) != 0, "there is no IVF under key " + std::to_string(key));
    return Probes{key, nprobe};
  });
  ivfs_.find(probes.key)->second.nprobe = probes.nprobe;
}

void ShardedIndex::clear_ivf() { ivfs_.clear(); }

// The lists of the best centroids, as an exact search of the centroids finds them, are the same on
// every rank; the rows in them are offered as candidates, in the order of the lists.
void ShardedIndex::search_lists(const Ivf& ivf, const float* query, std::span<Entry> list) {
  const Hits lists = ivf.centroids.search_full({query, at(dim_)}, std::min(ivf.nprobe, ivf.nlist));
  std::vector<std::int64_t> rows;
  std::vector<std::int64_t> probe_of_list(at(ivf.nlist));
  for (std::size_t probe = 0; probe < lists.size(); ++probe) {
    const auto chosen = at(lists.ids[probe]);
    probe_of_list[chosen] = static_cast<std::int64_t>(probe);
    rows.insert(rows.end(), ivf.rows.begin() + static_cast<std::ptrdiff_t>(ivf.begins[chosen]),
                ivf.rows.begin() + static_cast<std::ptrdiff_t>(ivf.begins[chosen + 1]));
  }
  const std::int32_t count = qx_index_scatter_topk(
      base_->handle(), rows.data(), static_cast<std::int32_t>(rows.size()), query,
      static_cast<std::int32_t>(list.size()), slot_ids_.data(), slot_scores_.data());
  for (std::size_t i = 0; i < at(count); ++i) {
    if (!is_filled(slot_scores_[i])) break;
    const std::int64_t row = slot_ids_[i];
    const std::int64_t probe = probe_of_list[at(ivf.list_of_row[at(row)])];
    list[i] = {(probe << kPlaceBits) + ivf.place_of_row[at(row)], id_of_row(row), slot_scores_[i]};
  }
}

}  // namespace qx
