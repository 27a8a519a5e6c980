#include "top_list.hpp"

#include <algorithm>
#include <vector>

namespace qx {
namespace {

// What lists are merged in: MPI gives the callback below no argument of ours.
std::vector<Entry>& scratch() {
  thread_local std::vector<Entry> entries;
  return entries;
}

bool comes_before(const Entry& one, const Entry& other) {
  if (one.score != other.score) return one.score > other.score;
  return one.arrival < other.arrival;
}

// An element of the type is a whole list.
void merge_callback(void* in, void* in_out, int* count, MPI_Datatype* type) {
  int size = 0;
  MPI_Type_size(*type, &size);
  const std::int64_t k = size / static_cast<std::int64_t>(sizeof(Entry));
  for (std::int64_t list = 0; list < *count; ++list) {
    merge_into(static_cast<const Entry*>(in) + list * k, static_cast<Entry*>(in_out) + list * k, k);
  }
}

}  // namespace

void reserve_merge_buffer(std::int64_t k) {
  scratch().resize(std::max(scratch().size(), static_cast<std::size_t>(k)));
}

void merge_into(const Entry* from, Entry* into, std::int64_t k) {
  Entry* const merged = scratch().data();
  const Entry* own = into;
  for (std::int64_t i = 0; i < k; ++i) merged[i] = comes_before(*own, *from) ? *own++ : *from++;
  std::copy(merged, merged + k, into);
}

void reduce_to_root(std::span<Entry> lists, std::int64_t k, MPI_Comm ranks) {
  if (lists.empty()) return;
  int rank = 0;
  MPI_Comm_rank(ranks, &rank);
  // MPI may cut a message between elements, never in one.
  MPI_Datatype list = MPI_DATATYPE_NULL;
  MPI_Type_contiguous(static_cast<int>(k * std::int64_t{sizeof(Entry)}), MPI_BYTE, &list);
  MPI_Type_commit(&list);
  MPI_Op merge = MPI_OP_NULL;
  MPI_Op_create(merge_callback, 1, &merge);
  // Rank 0 merges into its own lists; the others send theirs.
  MPI_Reduce(rank == 0 ? MPI_IN_PLACE : lists.data(), rank == 0 ? lists.data() : nullptr,
             static_cast<int>(std::ssize(lists) / k), list, merge, 0, ranks);
  MPI_Op_free(&merge);
  MPI_Type_free(&list);
}

void append_hits(std::span<const Entry> list, Hits& hits) {
  for (const Entry& entry : list) {
    if (!is_filled(entry.score)) break;  // the rest is empty too
    hits.ids.push_back(std::int64_t{entry.id});
    hits.scores.push_back(entry.score);
  }
}

}  // namespace qx
