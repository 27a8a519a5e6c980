#include "top_list.hpp"

#include <algorithm>
#include <cstddef>

namespace qx {
namespace {

// What the callback below merges into: MPI gives it no argument of ours.
std::vector<Entry>& scratch() {
  thread_local std::vector<Entry> entries;
  return entries;
}

// An element of this type is a whole list: MPI may cut a message between elements, never in one.
class ListType {
 public:
  explicit ListType(std::int64_t k) {
    const int lengths[] = {1, 1, 1};
    const MPI_Aint places[] = {offsetof(Entry, arrival), offsetof(Entry, id),
                               offsetof(Entry, score)};
    const MPI_Datatype types[] = {MPI_INT64_T, MPI_INT64_T, MPI_FLOAT};
    MPI_Datatype aligned = MPI_DATATYPE_NULL;
    MPI_Type_create_struct(3, lengths, places, types, &aligned);
    MPI_Datatype entry = MPI_DATATYPE_NULL;
    MPI_Type_create_resized(aligned, 0, sizeof(Entry), &entry);
    MPI_Type_contiguous(static_cast<int>(k), entry, &list_);
    MPI_Type_commit(&list_);
    MPI_Type_free(&entry);
    MPI_Type_free(&aligned);
  }
  ~ListType() { MPI_Type_free(&list_); }
  ListType(const ListType&) = delete;
  ListType& operator=(const ListType&) = delete;
  MPI_Datatype handle() const { return list_; }

 private:
  MPI_Datatype list_ = MPI_DATATYPE_NULL;
};

void merge_callback(void* in, void* in_out, int* count, MPI_Datatype* type) {
  int size = 0;
  MPI_Type_size(*type, &size);
  const std::int64_t k = size / static_cast<std::int64_t>(sizeof(Entry));
  Entry* const merged = scratch().data();
  for (std::int64_t list = 0; list < *count; ++list) {
    const Entry* const one = static_cast<const Entry*>(in) + list * k;
    Entry* const other = static_cast<Entry*>(in_out) + list * k;
    merge_lists(one, other, k, merged);
    std::copy(merged, merged + k, other);
  }
}

class MergeOperation {
 public:
  MergeOperation() { MPI_Op_create(merge_callback, 1, &operation_); }
  ~MergeOperation() { MPI_Op_free(&operation_); }
  MergeOperation(const MergeOperation&) = delete;
  MergeOperation& operator=(const MergeOperation&) = delete;
  MPI_Op handle() const { return operation_; }

 private:
  MPI_Op operation_ = MPI_OP_NULL;
};

}  // namespace

void merge_lists(const Entry* one, const Entry* other, std::int64_t length, Entry* merged) {
  for (std::int64_t i = 0; i < length; ++i) {
    merged[i] = comes_before(*other, *one) ? *other++ : *one++;
  }
}

void reserve_merge_buffer(std::int64_t k) {
  const std::size_t entries = std::max(scratch().size(), static_cast<std::size_t>(k));
  scratch().resize(entries);
}

void reduce_to_root(std::span<Entry> lists, std::int64_t k, MPI_Comm ranks) {
  if (lists.empty()) return;
  int rank = 0;
  MPI_Comm_rank(ranks, &rank);
  const ListType type(k);
  const MergeOperation merge;
  const auto count = static_cast<int>(std::ssize(lists) / k);
  // Rank 0 merges into its own lists; the others send theirs.
  const void* const sent = rank == 0 ? MPI_IN_PLACE : lists.data();
  void* const received = rank == 0 ? lists.data() : nullptr;
  MPI_Reduce(sent, received, count, type.handle(), merge.handle(), 0, ranks);
}

void append_hits(std::span<const Entry> list, Hits& hits) {
  for (const Entry& entry : list) {
    if (!is_filled(entry.score)) break;  // the rest is empty too
    hits.ids.push_back(std::int64_t{entry.id});
    hits.scores.push_back(entry.score);
  }
}

}  // namespace qx
