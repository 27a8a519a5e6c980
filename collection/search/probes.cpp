#include "search/probes.h"

#include <algorithm>

namespace qx::collection {

Probes::Probes(const Lists& lists, const Queries& queries)
    : probes_(static_cast<std::size_t>(queries.probes)),
      lists_(probes_ * static_cast<std::size_t>(queries.count)) {
  for (std::int64_t query = 0; query < queries.count; ++query) {
    lists.find_nearest(
        queries.vector(query),
        std::span(lists_).subspan(static_cast<std::size_t>(query) * probes_, probes_));
  }
}

std::span<const ListNumber> Probes::lists_of(std::int64_t query) const {
  return std::span(lists_).subspan(static_cast<std::size_t>(query) * probes_, probes_);
}

void Probes::mark(const PartView& view, std::int64_t query, std::int64_t first, std::int64_t count,
                  std::vector<std::uint64_t>& words) const {
  const auto set = [&](std::int64_t row) {
    words[static_cast<std::size_t>((row - first) / 64)] |= std::uint64_t{1} << (row - first) % 64;
  };
  if (view.segment == nullptr) {
    const ListNumber* const lists = static_cast<const Tail&>(*view.part).lists();
    const auto nearest = lists_of(query);
    std::vector<ListNumber> probed(nearest.begin(), nearest.end());
    std::ranges::sort(probed);
    for (std::int64_t row = first; row < first + count; ++row) {
      if (std::ranges::binary_search(probed, lists[row])) set(row);
    }
    return;
  }
  for (const ListNumber list : lists_of(query)) {
    const std::span<const std::uint32_t> rows = view.members->rows_of(list);
    auto row = std::ranges::lower_bound(rows, static_cast<std::uint32_t>(first));
    for (; row != rows.end() && *row < first + count; ++row) set(*row);
  }
}

}  // namespace qx::collection
