#include "search/tuning.h"

#include <algorithm>
#include <chrono>

namespace qx::collection {
namespace {

// Searches query by query, as a host would, on this thread, and takes the median time.
class TimedSearches {
 public:
  TimedSearches(const State& state, const Selection& selection, const Queries& queries,
                std::int64_t k)
      : state_(state), selection_(selection), queries_(queries), k_(k) {}

  // Calls visit(query, hits) for each.
  template <typename Visit>
  double run(std::int64_t probes, const Progress& progress, Visit visit) const {
    using Clock = std::chrono::steady_clock;
    std::vector<double> seconds;
    for (std::int64_t q = 0; q < queries_.count; ++q) {
      progress.report(q, queries_.count);
      const Queries query = {queries_.vector(q), 1, queries_.dim, queries_.metric, probes, {}};
      const auto began = Clock::now();
      const auto hits = search(state_, selection_, query, k_, 1, {nullptr, nullptr});
      seconds.push_back(std::chrono::duration<double>(Clock::now() - began).count());
      visit(q, hits[0]);
    }
    const auto middle = seconds.begin() + std::ssize(seconds) / 2;
    std::ranges::nth_element(seconds, middle);
    return *middle;
  }

 private:
  const State& state_;
  const Selection& selection_;
  const Queries& queries_;
  const std::int64_t k_;
};

// The place of each list among those nearest to a query.
std::vector<std::size_t> ranks_of(const Lists& lists, const float* query) {
  std::vector<ListNumber> nearest(static_cast<std::size_t>(lists.count()));
  lists.find_nearest(query, nearest);
  std::vector<std::size_t> ranks(nearest.size());
  for (std::size_t rank = 0; rank < nearest.size(); ++rank) ranks[nearest[rank]] = rank;
  return ranks;
}

}  // namespace

QxTuning tune(const State& state, const Selection& selection, const Queries& queries,
              std::int64_t k, double recall, const Progress& progress) {
  const TimedSearches searches(state, selection, queries, k);
  const RowLists lists(state);
  std::vector<std::int64_t> found(static_cast<std::size_t>(state.lists->count()));
  std::vector<std::vector<Hit>> best;
  std::int64_t all = 0;
  QxTuning tuning = {};
  const auto rank_hits = [&](std::int64_t query, const std::vector<Hit>& hits) {
    const std::vector<std::size_t> ranks = ranks_of(*state.lists, queries.vector(query));
    for (const Hit& hit : hits) ++found[ranks[lists.of(hit.at)]];
    all += std::ssize(hits);
    best.push_back(hits);
  };
  tuning.n_queries = queries.count;
  tuning.exact_seconds = searches.run(0, progress.part(0, 2 * queries.count), rank_hits);
  // The hits that so many lists have.
  const auto reached = [&](std::int64_t hits) {
    return all == 0 ? 1.0 : static_cast<double>(hits) / static_cast<double>(all);
  };
  std::int64_t hits = found[0];
  tuning.probes = 1;
  while (reached(hits) < recall) {  // all lists have all hits
    hits += found[static_cast<std::size_t>(tuning.probes++)];
  }
  // A query that went on to further lists has found more.
  std::int64_t found_again = 0;
  const auto count_hits = [&](std::int64_t query, const std::vector<Hit>& some) {
    for (const Hit& hit : best[static_cast<std::size_t>(query)]) {
      found_again += std::ranges::count(some, hit.at, &Hit::at);
    }
  };
  const std::int64_t probes = tuning.probes < state.lists->count() ? tuning.probes : 0;
  tuning.seconds =
      searches.run(probes, progress.part(queries.count, 2 * queries.count), count_hits);
  tuning.recall = reached(found_again);
  progress.report(2 * queries.count, 2 * queries.count);
  return tuning;
}

}  // namespace qx::collection
