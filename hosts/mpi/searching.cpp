// Searches: what rank 0 is asked goes to all ranks, each searches its rows, and the lists are
// merged on their way back: the k best of two lists are the k best of all rows that either has
// seen. The order of a collection is total, so ranks may be merged in any order, two at a time.
#include <cmath>
#include <cstring>

#include "sharded_collection.hpp"

namespace qx::mpi {
namespace {

constexpr std::int64_t kFirstBytes = 3500;  // of a question, with which it is one short message
constexpr std::int64_t kMostHits = std::numeric_limits<int>::max() / std::int64_t{sizeof(Hit)};

template <typename T>
void append(std::vector<std::byte>& bytes, std::span<const T> numbers) {
  const auto added = std::as_bytes(numbers);
  bytes.insert(bytes.end(), added.begin(), added.end());
}

template <typename T>
std::vector<T> taken(const std::byte*& from, std::int64_t count) {
  std::vector<T> numbers(at(count));
  if (count > 0) std::memcpy(numbers.data(), from, numbers.size() * sizeof(T));
  from += numbers.size() * sizeof(T);
  return numbers;
}

// MPI gives the callback below no argument of ours.
thread_local Hit* merged = nullptr;
thread_local bool is_rising = false;  // the order of scores: that of distances

// A slot without a hit comes after every hit.
bool comes_before(const Hit& one, const Hit& other) {
  if (std::isnan(one.score) || std::isnan(other.score)) return std::isnan(other.score);
  if (one.score != other.score) return is_rising == (one.score < other.score);
  return one.id < other.id;
}

// Makes the lists of the second the k best of both. An element of the type is a whole list.
void merge_lists(void* in, void* in_out, int* count, MPI_Datatype* type) {
  int size = 0;
  MPI_Type_size(*type, &size);
  const int k = size / static_cast<int>(sizeof(Hit));
  for (int list = 0; list < *count; ++list) {
    Hit* const into = static_cast<Hit*>(in_out) + std::ptrdiff_t{list} * k;
    const Hit* own = into;
    const Hit* from = static_cast<const Hit*>(in) + std::ptrdiff_t{list} * k;
    for (int i = 0; i < k; ++i) merged[i] = comes_before(*own, *from) ? *own++ : *from++;
    std::copy_n(merged, k, into);
  }
}

// Merges the lists of all ranks into those of rank 0: any number of lists of k hits each, one after
// the other. It allocates nothing of ours, but in the buffer, which has k hits.
void reduce_to_root(std::span<Hit> lists, std::int64_t k, std::vector<Hit>& buffer,
                    const Communicator& ranks) {
  if (lists.empty()) return;
  merged = buffer.data();
  // MPI may cut a message between elements, never in one.
  MPI_Datatype list = MPI_DATATYPE_NULL;
  MPI_Type_contiguous(static_cast<int>(k * std::int64_t{sizeof(Hit)}), MPI_BYTE, &list);
  MPI_Type_commit(&list);
  MPI_Op merge = MPI_OP_NULL;
  MPI_Op_create(merge_lists, 1, &merge);
  // Rank 0 merges into its own lists; the others send theirs.
  MPI_Reduce(ranks.is_root() ? MPI_IN_PLACE : lists.data(),
             ranks.is_root() ? lists.data() : nullptr, static_cast<int>(std::ssize(lists) / k),
             list, merge, 0, ranks.handle());
  MPI_Op_free(&merge);
  MPI_Type_free(&list);
}

}  // namespace

// What rank 0 asks at once.
struct ShardedCollection::Round {
  std::int64_t queries = 0;
  std::int64_t left = 0;  // for further rounds
  std::int64_t k = 0;
  std::int64_t among = -1;  // so many ids, or all rows
  std::int64_t bytes = 0;   // of ids, queries, and the filter with its end mark
  std::byte first_bytes[kFirstBytes] = {};
};

ShardedCollection::Hits ShardedCollection::search(Floats queries, std::int64_t k,
                                                  const std::string& filter,
                                                  std::optional<Ids> among) const {
  check_whole();
  Hits found;
  std::vector<std::byte> payload;
  std::vector<Hit> lists, buffer;
  for (std::int64_t left = 1; left > 0;) {
    const Round round =
        ranks_.from_root([&] { return ask(queries, found.size(), k, filter, among, payload); });
    const bool is_long = round.bytes > kFirstBytes;
    if (is_long) payload = ranks_.shared(std::span<const std::byte>(payload));
    const std::size_t first = found.size();
    ranks_.together([&] {
      search_own(round, is_long ? payload.data() : round.first_bytes, lists);
      buffer.resize(at(round.k));
      if (!ranks_.is_root()) return;
      for (std::int64_t q = 0; q < round.queries; ++q) found.emplace_back(at(round.k));
    });
    is_rising = schema_.metric == QX_EUCLIDEAN;
    reduce_to_root(lists, round.k, buffer, ranks_);
    for (std::size_t q = first; q < found.size(); ++q) {
      std::copy_n(lists.data() + (q - first) * at(round.k), round.k, found[q].data());
      std::erase_if(found[q], [](const Hit& hit) { return std::isnan(hit.score); });
    }
    left = round.left;
  }
  return found;
}

// The next round of rank 0's queries, `done` of which have been asked.
ShardedCollection::Round ShardedCollection::ask(Floats queries, std::size_t done, std::int64_t k,
                                                const std::string& filter, std::optional<Ids> among,
                                                std::vector<std::byte>& payload) const {
  const std::size_t dim = at(schema_.dim);
  require(queries.size() % dim == 0, "the queries are ", queries.size(),
          " floats, no multiple of the dimension ", dim);
  require(filter.find('\0') == std::string::npos, "the filter holds a zero byte");
  require(k >= 0, "k is ", k, ", below 0");
  Round round;
  round.k = std::min(k, rows_);
  require(round.k <= kMostHits, "k is above ", kMostHits);
  const std::int64_t bytes_each =
      4 * std::int64_t{schema_.dim} + round.k * std::int64_t{sizeof(Hit)};
  const auto all = static_cast<std::int64_t>(queries.size() / dim - done);
  round.queries = std::min(all, std::max<std::int64_t>(1, round_bytes_ / bytes_each));
  round.left = all - round.queries;
  round.among = among ? std::ssize(*among) : -1;
  payload.clear();
  append(payload, among.value_or(Ids()));
  append(payload, queries.subspan(done * dim, at(round.queries) * dim));
  append(payload, std::span<const char>(filter.c_str(), filter.size() + 1));
  round.bytes = std::ssize(payload);
  std::copy_n(payload.begin(), std::min(round.bytes, kFirstBytes), round.first_bytes);
  return round;
}

// Makes this rank's lists for the queries of a round.
void ShardedCollection::search_own(const Round& round, const std::byte* given,
                                   std::vector<Hit>& lists) const {
  const auto ids = taken<std::int64_t>(given, std::max<std::int64_t>(round.among, 0));
  const auto queries = taken<float>(given, round.queries * schema_.dim);
  const QxIds among{std::ssize(ids), ids.data(), nullptr};
  const char* const filter = reinterpret_cast<const char*>(given);
  QxSearch search = {};
  search.filter = *filter == 0 ? nullptr : filter;
  search.among = round.among < 0 ? nullptr : &among;
  QxHits* out = nullptr;
  call(qx_collection_search(own_.get(), nullptr, queries.data(), round.queries, round.k, &search,
                            &out));
  const std::unique_ptr<QxHits, decltype(&qx_hits_free)> hits(out, qx_hits_free);
  lists.assign(at(round.queries * round.k), Hit());
  for (std::int64_t q = 0; q < round.queries; ++q) {
    for (std::int64_t i = 0; i < hits->counts[q]; ++i) {
      lists[at(q * round.k + i)] = {hits->ids[q * hits->k + i], hits->scores[q * hits->k + i]};
    }
  }
}

}  // namespace qx::mpi
