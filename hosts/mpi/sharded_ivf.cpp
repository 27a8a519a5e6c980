// IVF structures of a sharded index: all centroids are on every rank, and of each list the rows
// of that rank.
#include <algorithm>
#include <cstddef>
#include <numeric>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {
namespace {

// An arrival through lists: the probe above the place in the list, which is below 2^40.
constexpr int kPlaceBits = 40;
constexpr std::int64_t kMostLists = std::int64_t{1} << 22;

void check_probes(std::int32_t nprobe) {
  require(nprobe >= 0, "nprobe is ", nprobe, ", and must be 0 or more");
}

}  // namespace

// What rank 0 was given, with the number of centroids.
ShardedIndex::IvfShape ShardedIndex::check_lists(const IvfShape& asked, Floats centroids) const {
  const std::int64_t lists = count_of("centroids", centroids);
  require(lists <= kMostLists, "there are more than 2^22 lists");
  check_probes(asked.nprobe);
  return {asked.key, asked.nprobe, static_cast<std::int32_t>(lists)};
}

void ShardedIndex::set_ivf(std::int64_t key, std::int32_t nprobe, Floats centroids, Ids list_ids,
                           std::span<const std::int32_t> list_offsets) {
  check_whole();
  const IvfShape shape = ranks_.from_root([&] {
    const IvfShape checked = check_lists({key, nprobe, 0}, centroids);
    require(std::ssize(list_offsets) == checked.nlist + 1, list_offsets.size(), " offsets for ",
            checked.nlist, " lists; n lists have n + 1");
    std::int32_t last = 0;
    for (const std::int32_t offset : list_offsets) {
      require(offset >= last && offset <= std::ssize(list_ids), "an offset is ", offset,
              ", outside ", last, " to ", list_ids.size());
      last = offset;
    }
    return checked;
  });
  const Numbers ids = ranks_.shared(list_ids);
  const std::vector<std::int32_t> offsets = ranks_.shared(list_offsets);
  set_lists(shape, centroids, [&](Ivf& ivf) {
    for (std::int32_t list = 0; list < ivf.nlist; ++list) {
      for (std::int32_t i = offsets[at(list)]; i < offsets[at(list) + 1]; ++i) {
        const std::int64_t row = find_row(ids[at(i)]);
        if (row < 0) continue;
        require(ivf.list_of_row[at(row)] < 0, "the id ", ids[at(i)], " stands in the lists twice");
        ivf.list_of_row[at(row)] = list;
        ivf.place_of_row[at(row)] = i;
      }
    }
  });
}

// A list has its rows in the order of the base, so that their places are their numbers there.
void ShardedIndex::set_ivf_by_row(std::int64_t key, std::int32_t nprobe, Floats centroids,
                                  std::span<const std::int32_t> list_of_row) {
  check_whole();
  const IvfShape shape = ranks_.from_root([&] { return check_lists({key, nprobe, 0}, centroids); });
  set_lists(shape, centroids, [&](Ivf& ivf) {
    require(std::ssize(list_of_row) == base_.rows, list_of_row.size(), " numbers of lists for ",
            base_.rows, " rows");
    for (const std::int32_t list : list_of_row) {
      require(list >= -1 && list < ivf.nlist, "a row's list is ", list, ", outside -1 to ",
              ivf.nlist - 1);
    }
    ivf.list_of_row.assign(list_of_row.begin(), list_of_row.end());
    std::iota(ivf.place_of_row.begin(), ivf.place_of_row.end(), base_.first_row);
  });
}

// Makes the structure of a key from rank 0's centroids, and from the list and the place of each row
// of this rank that place(ivf) fills in.
template <typename Place>
void ShardedIndex::set_lists(const IvfShape& shape, Floats centroids, Place place) {
  const std::vector<float> middles = ranks_.shared(centroids);
  std::map<std::int64_t, Ivf> made;
  ranks_.together([&] {
    Ivf& ivf = made[shape.key];
    ivf.nprobe = shape.nprobe;
    ivf.nlist = shape.nlist;
    ivf.centroids.emplace(dim_);
    ivf.centroids->build(middles, numbered(shape.nlist));
    ivf.list_of_row.assign(at(base_.rows), -1);
    ivf.place_of_row.assign(at(base_.rows), 0);
    place(ivf);
    sort_rows(ivf);
    // A search offers up to all of them to the engine at once.
    require_countable(ivf.rows.size(), "rows of a rank in lists");
  });
  Ivf& ivf = made.begin()->second;
  ivf.n_ids = ranks_.sum(std::ssize(ivf.rows));
  ivfs_.erase(shape.key);
  ivfs_.merge(made);
}

// Lists the rows by their lists, each in the order of its places.
void ShardedIndex::sort_rows(Ivf& ivf) const {
  ivf.begins.assign(at(ivf.nlist) + 1, 0);
  for (std::int64_t row = 0; row < base_.rows; ++row) {
    const std::int32_t list = ivf.list_of_row[at(row)];
    if (list < 0) continue;
    ivf.rows.push_back(row);
    ++ivf.begins[at(list) + 1];
  }
  std::partial_sum(ivf.begins.begin(), ivf.begins.end(), ivf.begins.begin());
  const auto list_and_place = [&](std::int64_t row) {
    return std::pair(ivf.list_of_row[at(row)], ivf.place_of_row[at(row)]);
  };
  std::sort(ivf.rows.begin(), ivf.rows.end(), [&](std::int64_t one, std::int64_t other) {
    return list_and_place(one) < list_and_place(other);
  });
}

void ShardedIndex::set_ivf_nprobe(std::int64_t key, std::int32_t nprobe) {
  check_whole();
  const IvfShape asked = ranks_.from_root([&] {
    check_probes(nprobe);
    require(ivfs_.count(key) != 0, "there is no IVF under key ", key);
    return IvfShape{key, nprobe, 0};
  });
  ivfs_.find(asked.key)->second.nprobe = asked.nprobe;
}

void ShardedIndex::clear_ivf() { ivfs_.clear(); }

// The lists of the best centroids, as an exact search of the centroids finds them, are the same on
// every rank; the rows in them are offered as candidates, in the order of the lists.
void ShardedIndex::search_lists(const Ivf& ivf, Floats query, Entries list) {
  const Hits lists = ivf.centroids->search_full(query, std::min(ivf.nprobe, ivf.nlist));
  Numbers rows, probe_of_list(at(ivf.nlist));
  for (std::size_t probe = 0; probe < lists.size(); ++probe) {
    const auto chosen = at(lists.ids[probe]);
    probe_of_list[chosen] = static_cast<std::int64_t>(probe);
    const Ids own = Ids(ivf.rows).first(ivf.begins[chosen + 1]).subspan(ivf.begins[chosen]);
    rows.insert(rows.end(), own.begin(), own.end());
  }
  const std::size_t found =
      base_.engine->scatter_topk(rows, query, ids_for(list), scores_for(list));
  take(list, found, [&](std::int64_t row) {
    const std::int64_t probe = probe_of_list[at(ivf.list_of_row[at(row)])];
    return Entry{(probe << kPlaceBits) + ivf.place_of_row[at(row)], id_of_row(row)};
  });
}

}  // namespace qx
