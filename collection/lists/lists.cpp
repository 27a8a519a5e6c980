#include "lists/lists.h"

#include <algorithm>
namespace qx::collection {

// The vector v is nearest to the centroid c for which |v - c|^2 = |v|^2 - 2 (v c - |c|^2 / 2) is
// least: for distances, centroids are kept with a component -|c|^2 / 2, and vectors have a 1 there.
Lists::Lists(const float* centroids, std::int64_t count, std::int64_t dim, Nearness nearness,
             const std::shared_ptr<Budget>& budget)
    : count_(count),
      dim_(dim),
      nearness_(nearness),
      share_(budget, SealedIndex::bytes_of(count, width_of(dim, nearness))),
      index_(count, width_of(dim, nearness)) {
  for (std::int64_t list = 0; list < count; ++list) {
    float* const centroid = index_.vector(list);
    std::copy_n(centroids + list * dim, dim, centroid);
    if (nearness == Nearness::kInnerProduct) continue;
    double squares = 0;
    for (std::int64_t j = 0; j < dim; ++j) squares += double{centroid[j]} * centroid[j];
    centroid[dim] = static_cast<float>(-squares / 2);
  }
  index_.complete(0, count);
}

// Ranks the lists, as many as there are slots.
void Lists::rank(const float* query, const ResultSlots& slots, std::vector<float>& space) const {
  if (nearness_ == Nearness::kDistance) {
    space.resize(static_cast<std::size_t>(dim_ + 1));
    std::copy_n(query, dim_, space.data());
    space.back() = 1;
    query = space.data();
  }
  Scan scan(index_.get(), query, slots, count_);
  scan.add_base_rows(0, count_, index_.get().base_ids);
  scan.finish();
}

ListNumber Lists::list_of(const float* vector, std::vector<float>& space) const {
  std::int64_t number;
  float score;
  rank(vector, {1, &number, &score}, space);
  return number == kEmptyId ? 0 : static_cast<ListNumber>(number);
}

// A list whose score is no number comes last.
void Lists::find_nearest(const float* query, std::span<ListNumber> out) const {
  std::vector<std::int64_t> numbers(out.size());
  std::vector<float> scores(out.size());
  std::vector<float> space;
  rank(query, {std::ssize(out), numbers.data(), scores.data()}, space);
  std::size_t found = 0;
  for (; found < out.size() && numbers[found] != kEmptyId; ++found) {
    out[found] = static_cast<ListNumber>(numbers[found]);
  }
  const auto end = out.begin() + static_cast<std::ptrdiff_t>(found);
  for (ListNumber list = 0; found < out.size(); ++list) {
    if (std::find(out.begin(), end, list) == end) out[found++] = list;
  }
}

Members::Members(std::span<const ListNumber> lists, std::int64_t count,
                 const std::shared_ptr<Budget>& budget)
    : share(budget, 4 * (std::ssize(lists) + count + 1)),
      starts_(static_cast<std::size_t>(count) + 1),
      rows_(lists.size()) {
  for (const ListNumber list : lists) ++starts_[list];
  for (std::size_t list = 1; list < starts_.size(); ++list) starts_[list] += starts_[list - 1];
  for (std::size_t row = lists.size(); row-- > 0;) {
    rows_[--starts_[lists[row]]] = static_cast<std::uint32_t>(row);
  }
}

std::vector<ListNumber> Members::lists() const {
  std::vector<ListNumber> lists(rows_.size());
  for (std::size_t list = 0; list + 1 < starts_.size(); ++list) {
    for (const std::uint32_t row : rows_of(static_cast<ListNumber>(list))) {
      lists[row] = static_cast<ListNumber>(list);
    }
  }
  return lists;
}

}  // namespace qx::collection
