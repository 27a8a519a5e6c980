// Searches of a sharded index: what rank 0 was asked goes to all ranks, each searches its engines,
// and the lists are merged on their way back.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {
namespace {

// Base rows arrive after every delta row in the walk of one index.
constexpr std::int64_t kFirstBaseArrival = std::int64_t{1} << 62;
constexpr std::int64_t kBytesOfLists = std::int64_t{1} << 26;
constexpr std::int64_t kMostResults = std::numeric_limits<std::int32_t>::max() / 32;

}  // namespace

// ---- Asking ----

// Checks what rank 0 was given, whose results are at most most(), and reserves memory for them.
// Sends it to all ranks, and the first query with it: a single one needs no message of its own.
template <typename Most>
ShardedIndex::Asked ShardedIndex::ask(Asked asked, Floats queries, Most most,
                                      std::vector<Hits>& found) {
  ranks_.share_block(question_, [&](std::span<std::byte> contents) {
    const std::int64_t results = most();
    asked.queries = count_of("queries", queries);
    require(asked.k >= 0, "k is ", asked.k, ", and must be 0 or more");
    asked.k = std::min(asked.k, results);
    require(asked.k <= kMostResults, "k is above ", kMostResults);
    found.resize(at(asked.queries));
    for (Hits& hits : found) {
      hits.ids.reserve(at(asked.k));
      hits.scores.reserve(at(asked.k));
    }
    std::memcpy(contents.data(), &asked, sizeof asked);
    if (asked.queries > 0) {
      std::memcpy(contents.data() + sizeof asked, queries.data(), sizeof(float) * at(dim_));
    }
  });
  std::memcpy(&asked, question_.data() + Communicator::kBlockHead, sizeof asked);
  return asked;
}

// Grows the buffers for the searches of one round. Whether they grow is decided by capacity_, which
// is equal on all ranks: after a failure, the buffers of one may be larger than another's.
void ShardedIndex::reserve_buffers(std::int64_t k, std::int64_t queries) {
  if (k <= capacity_.k && k * queries <= capacity_.entries && queries <= capacity_.queries) return;
  const Capacity wanted{std::max(k, capacity_.k), std::max(k * queries, capacity_.entries),
                        std::max(queries, capacity_.queries)};
  ranks_.together([&] {
    lists_.resize(at(wanted.entries));
    queries_.resize(at(wanted.queries * dim_));
    other_list_.resize(at(wanted.k));
    slot_scores_.resize(at(wanted.k));
    slot_ids_.resize(at(wanted.k));
    reserve_merge_buffer(wanted.k);
  });
  capacity_ = wanted;
}

// Some of rank 0's queries, on every rank.
ShardedIndex::Floats ShardedIndex::share_queries(const Asked& asked, Floats queries,
                                                 std::int64_t first, std::int64_t count) {
  const std::span<float> sent = std::span(queries_).first(at(count * dim_));
  if (asked.queries == 1) {
    std::memcpy(sent.data(), question_.data() + Communicator::kBlockHead + sizeof asked,
                sent.size_bytes());
    return sent;
  }
  if (ranks_.is_root()) {
    const Floats part = queries.subspan(at(first * dim_), sent.size());
    std::copy(part.begin(), part.end(), sent.begin());
  }
  ranks_.broadcast(sent);
  return sent;
}

// Every rank makes a list for each query by local(asked, query, list), which allocates nothing
// unless it can fail.
template <bool can_fail, typename Local>
void ShardedIndex::run(const Asked& asked, Floats queries, std::vector<Hits>& found, Local local) {
  if (asked.k == 0) return;
  const auto list_of = [&](std::int64_t q) {
    return std::span(lists_).subspan(at(q * asked.k), at(asked.k));
  };
  const auto bytes_each = static_cast<std::int64_t>(sizeof(Entry)) * asked.k;
  const std::int64_t step = std::max<std::int64_t>(1, kBytesOfLists / bytes_each);
  for (std::int64_t first = 0; first < asked.queries; first += step) {
    const std::int64_t count = std::min(step, asked.queries - first);
    reserve_buffers(asked.k, count);
    const Floats sent = share_queries(asked, queries, first, count);
    const auto search_all = [&] {
      for (std::int64_t q = 0; q < count; ++q) {
        local(asked, sent.subspan(at(q * dim_), at(dim_)), list_of(q));
      }
    };
    can_fail ? ranks_.together(search_all) : search_all();
    reduce_to_root(std::span(lists_).first(at(count * asked.k)), asked.k, ranks_.handle());
    if (!ranks_.is_root()) continue;
    for (std::int64_t q = 0; q < count; ++q) append_hits(list_of(q), found[at(first + q)]);
  }
}

template <bool can_fail, typename Most, typename Local>
std::vector<Hits> ShardedIndex::search(Asked asked, Floats queries, Most most, Local local) {
  check_whole();
  std::vector<Hits> found;
  run<can_fail>(ask(asked, queries, most, found), queries, found, local);
  return found;
}

std::vector<Hits> ShardedIndex::search_full(Floats queries, std::int64_t k) {
  const auto most = [&] { return base_.total_rows; };
  const auto local = [&](const Asked&, Floats query, Entries list) {
    const std::size_t found = base_.engine->search_full(query, ids_for(list), scores_for(list));
    take(list, found, [&](std::int64_t row) {
      return Entry{base_.first_row + row, id_of_row(row)};
    });
  };
  return search<false>({.k = k}, queries, most, local);
}

std::vector<Hits> ShardedIndex::search_filtered(Filter filter, Floats queries, std::int64_t k) {
  const auto most = [&] { return base_.total_rows + next_sequence_; };
  const auto local = [&](const Asked& asked, Floats query, Entries list) {
    search_current(asked.filter, query, list);
  };
  return search<false>({.k = k, .filter = filter}, queries, most, local);
}

std::vector<Hits> ShardedIndex::search_ivf(std::int64_t key, Floats queries, std::int64_t k) {
  const auto most = [&] {
    const auto ivf = ivfs_.find(key);
    require(ivf != ivfs_.end(), "there is no IVF under key ", key);
    return ivf->second.n_ids;
  };
  const auto local = [&](const Asked& asked, Floats query, Entries list) {
    search_lists(ivfs_.find(asked.key)->second, query, list);
  };
  return search<true>({.k = k, .key = key}, queries, most, local);
}

void ShardedIndex::search_current(const Filter& filter, Floats query, Entries list) {
  // By the C interface, which takes columns that this index does not have.
  const auto search = [&](const Index& engine) {
    qx_index_search_filtered(engine.handle(), filter.mode(), filter.column(), filter.value(),
                             query.data(), static_cast<std::uint32_t>(list.size()),
                             slot_ids_.data(), slot_scores_.data());
  };
  search(*delta_);
  take(list, list.size(), [&](std::int64_t id) {
    return Entry{owned_.find(id)->second.sequence, id};
  });
  search(*base_.engine);
  const Entries of_base = std::span(other_list_).first(list.size());
  take(of_base, list.size(), [&](std::int64_t row) {
    return Entry{kFirstBaseArrival + base_.first_row + row, id_of_row(row)};
  });
  merge_into(of_base.data(), list.data(), std::ssize(list));
}

// ---- Candidates ----

template <typename Local>
Hits ShardedIndex::search_candidates(Ids candidates, Floats query, std::int64_t k, Local local) {
  const auto most = [&] {
    require(query.size() == at(dim_), "the query has ", query.size(),
            " floats, and the dimension is ", dim_);
    require_countable(candidates.size(), "candidates");
    return std::int64_t{std::ssize(candidates)};
  };
  check_whole();
  std::vector<Hits> found;
  const Asked asked = ask({.k = k}, query, most, found);
  const Numbers all = ranks_.shared(candidates);
  run<true>(asked, query, found,
            [&](const Asked&, Floats sent, Entries list) { local(Ids(all), sent, list); });
  return found.empty() ? Hits() : std::move(found.front());
}

Hits ShardedIndex::search_mvcc(Ids candidates, Floats query, std::int64_t k) {
  const auto local = [&](Ids ids, Floats sent, Entries list) {
    const auto search = [&](const Index& engine, const Part& part, Entries into) {
      const std::size_t found = engine.search_mvcc(part.ids, sent, ids_for(into), scores_for(into));
      take_by_place(into, found, part, &engine == &*base_.engine);
    };
    const Entries of_base = std::span(other_list_).first(list.size());
    search(*delta_, delta_part(ids), list);
    search(*base_.engine, base_part(ids), of_base);
    merge_into(of_base.data(), list.data(), std::ssize(list));
  };
  return search_candidates(candidates, query, k, local);
}

Hits ShardedIndex::scatter_topk(Ids candidates, Floats query, std::int64_t k) {
  const auto local = [&](Ids ids, Floats sent, Entries list) {
    const Part own = base_part(ids);
    const std::size_t found =
        base_.engine->scatter_topk(own.ids, sent, ids_for(list), scores_for(list));
    take_by_place(list, found, own, true);
  };
  return search_candidates(candidates, query, k, local);
}

// Takes slots of candidates. One that is listed twice has two, the earlier place first.
void ShardedIndex::take_by_place(Entries list, std::size_t slots, const Part& part,
                                 bool base) const {
  std::map<std::int64_t, Numbers> places;
  for (std::size_t i = part.ids.size(); i-- > 0;) places[part.ids[i]].push_back(part.places[i]);
  take(list, slots, [&](std::int64_t id) {
    Numbers& left = places[id];
    const Entry entry{left.back(), base ? id_of_row(id) : id};
    left.pop_back();
    return entry;
  });
}

}  // namespace qx
