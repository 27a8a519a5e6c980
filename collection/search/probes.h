// The lists that queries probe, and their rows.
#pragma once

#include "search/search.h"

namespace qx::collection {

class Probes {
 public:
  // Requires: queries.probes is 1 to lists.count().
  Probes(const Lists& lists, const Queries& queries);

  // The lists of a query, the nearest first.
  std::span<const ListNumber> lists_of(std::int64_t query) const;

  // Sets the bits of the rows, among `count` from `first` on, that are in a list of the query.
  void mark(const PartView& view, std::int64_t query, std::int64_t first, std::int64_t count,
            std::vector<std::uint64_t>& words) const;

 private:
  std::size_t probes_;
  std::vector<ListNumber> lists_;  // of each query
};

}  // namespace qx::collection
