// The steps of the tour, spread over a few files: tour.cpp builds and reads, tour_recall.cpp
// measures recall, tour_changes.cpp inserts, deletes and exports, tour_costs.cpp measures.
#ifndef WORDS_TOUR_STEPS_H
#define WORDS_TOUR_STEPS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "query.h"
#include "word_search.h"

// What the steps share.
struct Tour {
  WordSearch& search;
  std::int32_t k;
  int steps = 0;

  Index& index() { return search.index(); }
  const Vocabulary& vocabulary() const { return search.vocabulary(); }

  // Prints the number and the title of the next step.
  void begin_step(std::string_view title);
  // Prints the latest engine call.
  void show(std::string_view text);
  // Prints the latest engine call, which searched for the query, and the k best hits.
  void show_hits(std::string_view text, const Hits& hits, const Query& query);
  // The query for a word, or for a word of the given place if the vocabulary has no such word.
  Query query_for(std::string_view word, std::int64_t place) const;
  // How many hits to ask for, so that k remain without the query's own words.
  std::int32_t wanted(const Query& query) const { return k + surplus(query); }
};

// Returns the ids of count words, or of all if there are fewer, spread evenly over the places.
std::vector<std::int64_t> spread_ids(const Vocabulary& vocabulary, std::int64_t count);

void show_recall(Tour& tour);

// Returns how many rows an IVF search scans per query, as the mean over the words given.
double mean_rows_scanned(const WordSearch& search, const std::vector<std::int64_t>& ids,
                         std::int32_t probes);

void show_delete_and_insert(Tour& tour);
void show_new_row(Tour& tour);
// Both return false if what must be identical is not.
bool show_exports(Tour& tour);
bool show_copy(Tour& tour);

void show_costs(Tour& tour);

#endif
