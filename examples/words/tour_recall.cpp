#include <algorithm>
#include <cstddef>
#include <numeric>

#include "progress.h"
#include "report.h"
#include "text.h"
#include "tour_steps.h"

namespace {

constexpr std::int64_t kQueries = 200;
constexpr std::int32_t kNeighbours = 10;

// The answers to a number of queries, and the mean time of a query.
struct Answers {
  std::vector<Hits> hits;
  double nanoseconds = 0;
};

template <typename Search>
Answers answer_all(const WordSearch& search, const std::vector<Query>& queries, Progress& progress,
                   Search search_one) {
  Answers answers;
  for (const Query& query : queries) {
    const Hits hits = search_one(query);
    answers.nanoseconds += search.log().last().nanoseconds / static_cast<double>(queries.size());
    answers.hits.push_back(without_query_words(hits, query, kNeighbours));
    progress.advance();
  }
  return answers;
}

// Returns the share of the exact neighbours that the other answers found.
double recall(const Answers& exact, const Answers& found) {
  std::size_t wanted = 0;
  std::size_t met = 0;
  for (std::size_t i = 0; i < exact.hits.size(); ++i) {
    wanted += exact.hits[i].size();
    for (const Hit& hit : exact.hits[i]) {
      const auto same_id = [&hit](const Hit& other) { return other.id == hit.id; };
      met += std::any_of(found.hits[i].begin(), found.hits[i].end(), same_id) ? 1u : 0u;
    }
  }
  return wanted == 0 ? 1 : static_cast<double>(met) / static_cast<double>(wanted);
}

// Returns 1, 2, 4 and so on up to half the lists, the chosen number, and all lists.
std::vector<std::int32_t> probe_ladder(std::int32_t lists, std::int32_t chosen) {
  std::vector<std::int32_t> ladder = {chosen, lists};
  for (std::int32_t probes = 1; probes <= lists / 2; probes *= 2) ladder.push_back(probes);
  std::sort(ladder.begin(), ladder.end());
  ladder.erase(std::unique(ladder.begin(), ladder.end()), ladder.end());
  return ladder;
}

// What searches at one probe count find and cost, as means.
struct RecallRow {
  std::int32_t probes;
  double share;  // of the base rows that are scanned
  double recall;
  double nanoseconds;
};

struct RecallStudy {
  std::size_t queries;
  double exact_nanoseconds;
  std::vector<RecallRow> rows;
};

RecallStudy study_recall(WordSearch& search) {
  const Index& index = search.index();
  const std::vector<std::int64_t> ids = spread_ids(search.vocabulary(), kQueries);
  std::vector<Query> queries;
  queries.reserve(ids.size());
  for (const std::int64_t id : ids) queries.push_back(word_query(id, search));
  const auto ladder = probe_ladder(search.lists().count(), search.probes());
  Progress progress("Comparing IVF with exact search", std::ssize(ids) * (std::ssize(ladder) + 1));
  const Answers exact = answer_all(search, queries, progress, [&](const Query& query) {
    return index.search_full(query.vector, kNeighbours + surplus(query));
  });
  RecallStudy study{ids.size(), exact.nanoseconds, {}};
  const double rows = static_cast<double>(search.vocabulary().original_size());
  for (const std::int32_t probes : ladder) {
    search.set_probes(probes);
    const Answers found = answer_all(search, queries, progress, [&](const Query& query) {
      return index.search_ivf(kIvfKey, query.vector, kNeighbours + surplus(query));
    });
    const double share = mean_rows_scanned(search, ids, probes) / rows;
    study.rows.push_back({probes, share, recall(exact, found), found.nanoseconds});
  }
  return study;
}

void show_hits_by_ivf(Tour& tour) {
  const Query king = tour.query_for("king", 0);
  const Hits hits = tour.index().search_ivf(kIvfKey, king.vector, tour.wanted(king));
  tour.show_hits(std::to_string(tour.search.probes()) + " of " +
                     std::to_string(tour.search.lists().count()) + " lists:",
                 hits, king);
}

}  // namespace

double mean_rows_scanned(const WordSearch& search, const std::vector<std::int64_t>& ids,
                         std::int32_t probes) {
  const IvfLists& lists = search.lists();
  // Ranks the centroids as an IVF search does. These calls are bookkeeping: their times go nowhere.
  CallLog unused;
  Index ranking(search.dimension(), 0, unused);
  Rows rows{lists.centroids, std::vector<std::int64_t>(static_cast<std::size_t>(lists.count()))};
  std::iota(rows.ids.begin(), rows.ids.end(), std::int64_t{0});
  ranking.build(rows, {});
  std::int64_t scanned = 0;
  for (const std::int64_t id : ids) {
    for (const Hit& hit : ranking.search_full(search.vector(id), probes)) {
      const std::size_t list = static_cast<std::size_t>(hit.id);
      scanned += lists.offsets[list + 1] - lists.offsets[list];
    }
  }
  return static_cast<double>(scanned) / static_cast<double>(ids.size());
}

void show_recall(Tour& tour) {
  WordSearch& search = tour.search;
  tour.begin_step("Search by IVF: fewer rows, and now and then a neighbour missed");
  show_hits_by_ivf(tour);
  const std::int32_t chosen = search.probes();
  const RecallStudy study = study_recall(search);
  search.set_probes(chosen);
  print_text("Mean of " + std::to_string(study.queries) +
             " words. Recall: the share of the exact " + std::to_string(kNeighbours) +
             " nearest that qx_index_search_ivf finds too; exact " + "search takes " +
             time_text(study.exact_nanoseconds) + " per word.");
  const Table table({20, 16, 16, 12, 14});
  table.print_row({"lists scanned", "rows scanned", "recall", "time", "times faster"});
  for (const RecallRow& row : study.rows) {
    table.print_row({std::to_string(row.probes), decimal(100 * row.share, 1) + " %",
                     decimal(100 * row.recall, 1) + " %", time_text(row.nanoseconds),
                     decimal(study.exact_nanoseconds / row.nanoseconds, 1)});
  }
  tour.show("back to " + counted(chosen, "list"));
}
