// Searches of a sharded index: what rank 0 was asked goes to all ranks, each searches its engines,
// and the lists are merged on their way back.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string>

#include "sharded_index.hpp"
#include "support.hpp"

namespace qx {
namespace {

// Base rows arrive after every delta row in the walk of one index.
constexpr std::int64_t kFirstBaseArrival = std::int64_t{1} << 62;
constexpr std::int64_t kBytesOfLists = std::int64_t{1} << 26;

}  // namespace

// ---- Asking ----

// Checks what rank 0 was given and reserves memory for its results, which are at most `most`.
ShardedIndex::Asked ShardedIndex::checked(Floats queries, std::int64_t k, std::int64_t most,
                                          std::vector<Hits>& found) const {
  constexpr std::int64_t kMostResults = std::numeric_limits<std::int32_t>::max() / 32;
  require(queries.size() % at(dim_) == 0, "the queries are " + std::to_string(queries.size()) +
                                              " floats, no multiple of the dimension " +
                                              std::to_string(dim_));
  require(k >= 0, "k is " + std::to_string(k) + ", and must be 0 or more");
  const std::int64_t results = std::min(k, most);
  require(results <= kMostResults, "k is above " + std::to_string(kMostResults));
  const std::int64_t count = std::ssize(queries) / dim_;
  found.resize(at(count));
  for (Hits& hits : found) {
    hits.ids.reserve(at(results));
    hits.scores.reserve(at(results));
  }
  return {count, results, Filter::all(), 0};
}

// Sends what rank 0 was asked to all ranks, and the first query with it: a single one needs no
// message of its own.
template <typename Check>
ShardedIndex::Asked ShardedIndex::ask(Floats queries, Check check) {
  ranks_.share_block(question_, [&](std::span<std::byte> contents) {
    const Asked asked = check();
    std::memcpy(contents.data(), &asked, sizeof asked);
    if (asked.queries > 0) {
      std::memcpy(contents.data() + sizeof asked, queries.data(), sizeof(float) * at(dim_));
    }
  });
  Asked asked{0, 0, Filter::all(), 0};
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
    parts_.resize(at(2 * wanted.k));
    slot_scores_.resize(at(wanted.k));
    slot_ids_.resize(at(wanted.k));
    reserve_merge_buffer(wanted.k);
  });
  capacity_ = wanted;
}

template <typename Local>
void ShardedIndex::run(Floats queries, const Asked& asked, std::vector<Hits>& found, Local local) {
  if (asked.k == 0) return;
  const auto bytes_each = static_cast<std::int64_t>(sizeof(Entry)) * asked.k;
  const std::int64_t step = std::max<std::int64_t>(1, kBytesOfLists / bytes_each);
  for (std::int64_t first = 0; first < asked.queries; first += step) {
    const std::int64_t count = std::min(step, asked.queries - first);
    reserve_buffers(asked.k, count);
    const std::span<float> sent = std::span(queries_).first(at(count * dim_));
    if (asked.queries == 1) {
      std::memcpy(sent.data(), question_.data() + Communicator::kBlockHead + sizeof asked,
                  sent.size_bytes());
    } else {
      if (ranks_.is_root()) {
        const Floats part = queries.subspan(at(first * dim_), sent.size());
        std::copy(part.begin(), part.end(), sent.begin());
      }
      ranks_.broadcast(sent);
    }
    const std::span<Entry> lists = std::span(lists_).first(at(count * asked.k));
    std::fill(lists.begin(), lists.end(), Entry());
    local(sent.data(), lists, count);
    reduce_to_root(lists, asked.k, ranks_.handle());
    if (!ranks_.is_root()) continue;
    for (std::int64_t q = 0; q < count; ++q) {
      append_hits(lists.subspan(at(q * asked.k), at(asked.k)), found[at(first + q)]);
    }
  }
}

// ---- The sealed base ----

std::vector<Hits> ShardedIndex::search_full(Floats queries, std::int64_t k) {
  check_whole();
  std::vector<Hits> found;
  const Asked asked = ask(queries, [&] { return checked(queries, k, total_rows_, found); });
  run(queries, asked, found, [&](const float* sent, std::span<Entry> lists, std::int64_t count) {
    for (std::int64_t q = 0; q < count; ++q) {
      search_base(sent + q * dim_, lists.subspan(at(q * asked.k), at(asked.k)));
    }
  });
  return found;
}

void ShardedIndex::search_base(const float* query, std::span<Entry> list) {
  const std::int32_t count =
      qx_index_search_full(base_->handle(), query, static_cast<std::int32_t>(list.size()),
                           slot_ids_.data(), slot_scores_.data());
  for (std::size_t i = 0; i < at(count); ++i) {
    if (!is_filled(slot_scores_[i])) break;
    list[i] = {first_row_ + slot_ids_[i], id_of_row(slot_ids_[i]), slot_scores_[i]};
  }
}

// ---- What is visible now ----

std::vector<Hits> ShardedIndex::search_filtered(Filter filter, Floats queries, std::int64_t k) {
  check_whole();
  std::vector<Hits> found;
  const Asked asked = ask(queries, [&] {
    Asked made = checked(queries, k, total_rows_ + next_sequence_, found);
    made.filter = filter;
    return made;
  });
  run(queries, asked, found, [&](const float* sent, std::span<Entry> lists, std::int64_t count) {
    for (std::int64_t q = 0; q < count; ++q) {
      search_current(asked.filter, sent + q * dim_, lists.subspan(at(q * asked.k), at(asked.k)));
    }
  });
  return found;
}

void ShardedIndex::search_current(const Filter& filter, const float* query, std::span<Entry> list) {
  const std::span<Entry> of_delta = std::span(parts_).first(list.size());
  const std::span<Entry> of_base = std::span(parts_).subspan(list.size(), list.size());
  const auto search = [&](const Index& engine) {
    qx_index_search_filtered(engine.handle(), filter.mode(), filter.column(), filter.value(), query,
                             static_cast<std::uint32_t>(list.size()), slot_ids_.data(),
                             slot_scores_.data());
  };
  // An id may be -1 in the delta, so that the score says whether a slot is empty.
  search(*delta_);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const bool filled = is_filled(slot_scores_[i]);
    of_delta[i] =
        filled ? Entry{owned_.find(slot_ids_[i])->second.sequence, slot_ids_[i], slot_scores_[i]}
               : Entry();
  }
  search(*base_);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::int64_t row = slot_ids_[i];
    const bool filled = is_filled(slot_scores_[i]);
    of_base[i] = filled
                     ? Entry{kFirstBaseArrival + first_row_ + row, id_of_row(row), slot_scores_[i]}
                     : Entry();
  }
  merge_lists(of_delta.data(), of_base.data(), std::ssize(list), list.data());
}

// ---- Through lists; the rest is in sharded_ivf.cpp ----

std::vector<Hits> ShardedIndex::search_ivf(std::int64_t key, Floats queries, std::int64_t k) {
  check_whole();
  std::vector<Hits> found;
  const Asked asked = ask(queries, [&] {
    const auto ivf = ivfs_.find(key);
    require(ivf != ivfs_.end(), "there is no IVF under key " + std::to_string(key));
    Asked made = checked(queries, k, ivf->second.n_ids, found);
    made.key = key;
    return made;
  });
  const Ivf& ivf = ivfs_.find(asked.key)->second;
  run(queries, asked, found, [&](const float* sent, std::span<Entry> lists, std::int64_t count) {
    ranks_.together([&] {
      for (std::int64_t q = 0; q < count; ++q) {
        search_lists(ivf, sent + q * dim_, lists.subspan(at(q * asked.k), at(asked.k)));
      }
    });
  });
  return found;
}

// ---- Candidates ----

template <typename Local>
Hits ShardedIndex::search_candidates(Ids candidates, Floats query, std::int64_t k, Local local) {
  check_whole();
  std::vector<Hits> found;
  const Asked asked = ask(query, [&] {
    require(query.size() == at(dim_), "the query has " + std::to_string(query.size()) +
                                          " floats, and the dimension is " + std::to_string(dim_));
    require_countable(candidates.size(), "candidates");
    return checked(query, k, std::ssize(candidates), found);
  });
  const std::vector<std::int64_t> all = shared_ids(candidates);
  run(query, asked, found, [&](const float* sent, std::span<Entry> list, std::int64_t) {
    ranks_.together([&] { local(Ids(all), sent, list); });
  });
  return found.empty() ? Hits() : std::move(found.front());
}

Hits ShardedIndex::search_mvcc(Ids candidates, Floats query, std::int64_t k) {
  const auto local = [&](Ids ids, const float* sent, std::span<Entry> list) {
    const auto search = [&](const Index& engine, const Candidates& own, Entry* out) {
      qx_index_search_mvcc(
          engine.handle(), own.ids.data(), static_cast<std::int32_t>(own.ids.size()), sent,
          static_cast<std::uint32_t>(list.size()), slot_ids_.data(), slot_scores_.data());
      take_by_place(own, &engine == &*base_, std::ssize(list), out);
    };
    Entry* const parts = parts_.data();
    search(*delta_, delta_candidates(ids), parts);
    search(*base_, base_candidates(ids), parts + list.size());
    merge_lists(parts, parts + list.size(), std::ssize(list), list.data());
  };
  return search_candidates(candidates, query, k, local);
}

Hits ShardedIndex::scatter_topk(Ids candidates, Floats query, std::int64_t k) {
  const auto local = [&](Ids ids, const float* sent, std::span<Entry> list) {
    const Candidates own = base_candidates(ids);
    const std::int32_t count = qx_index_scatter_topk(
        base_->handle(), own.ids.data(), static_cast<std::int32_t>(own.ids.size()), sent,
        static_cast<std::int32_t>(list.size()), slot_ids_.data(), slot_scores_.data());
    std::fill(slot_scores_.begin() + count, slot_scores_.begin() + std::ssize(list),
              QX_EMPTY_SCORE);
    take_by_place(own, true, std::ssize(list), list.data());
  };
  return search_candidates(candidates, query, k, local);
}

ShardedIndex::Candidates ShardedIndex::base_candidates(Ids ids) const {
  Candidates own;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::int64_t row = find_row(ids[i]);
    if (row < 0) continue;
    own.ids.push_back(row);
    own.places.push_back(static_cast<std::int64_t>(i));
  }
  return own;
}

ShardedIndex::Candidates ShardedIndex::delta_candidates(Ids ids) const {
  Candidates own;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!owns(ids[i])) continue;
    own.ids.push_back(ids[i]);
    own.places.push_back(static_cast<std::int64_t>(i));
  }
  return own;
}

// Makes entries of the slots. A candidate listed twice has two slots, the earlier place first.
void ShardedIndex::take_by_place(const Candidates& candidates, bool base, std::int64_t k,
                                 Entry* list) const {
  std::map<std::int64_t, std::vector<std::int64_t>> places;
  for (std::size_t i = candidates.ids.size(); i-- > 0;) {
    places[candidates.ids[i]].push_back(candidates.places[i]);
  }
  for (std::int64_t i = 0; i < k; ++i) {
    list[i] = Entry();
    if (!is_filled(slot_scores_[at(i)])) continue;
    const std::int64_t found = slot_ids_[at(i)];
    std::vector<std::int64_t>& left = places[found];
    list[i] = {left.back(), base ? id_of_row(found) : found, slot_scores_[at(i)]};
    left.pop_back();
  }
}

}  // namespace qx
