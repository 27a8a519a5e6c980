#include "tour.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "report.h"
#include "text.h"
#include "tour_steps.h"

namespace {

// Some words around royalty, and some that have nothing to do with it.
constexpr std::array<const char*, 10> kCandidates = {
    "queen", "castle", "banana", "crown", "monday", "throne", "car", "prince", "river", "seven"};

void show_build(Tour& tour) {
  WordSearch& search = tour.search;
  tour.begin_step("Seal a base: rows sorted by first letter, a partition for each letter");
  print_call({"qx_index_new", sum(search.log().times("qx_index_new"))},
             "an empty index of dimension " + std::to_string(search.dimension()));
  search.seal();
  tour.show(counted(search.vocabulary().size(), "row") + " copied, their ids made findable");
  const bool sealed = tour.index().sealed();
  tour.show(sealed ? "1: there is a sealed base" : "0: there is no sealed base");
  const IndexStats stats = tour.index().stats();
  tour.show(counted(static_cast<std::int64_t>(stats.base_rows), "row") + ", dimension " +
            std::to_string(stats.dimension) + ", " + counted(stats.partitions, "partition") +
            ", user tag " + std::to_string(stats.user_tag));
}

void show_attachments(Tour& tour, std::int32_t probes) {
  WordSearch& search = tour.search;
  tour.begin_step("Attach metadata and an inverted file (IVF)");
  search.attach_metadata();
  tour.show("per word: its first letter as label, its length and frequency band as columns");
  search.attach_ivf(probes);
  const Call attached = search.log().last();
  const std::vector<double>& times = search.clustering_log().times("qx_index_search_full");
  print_text("The host computes the centroids by k-means, with the engine: " +
             grouped(static_cast<std::int64_t>(times.size())) +
             " calls of qx_index_search_full with k = 1 over an index of the centroids took " +
             time_text(sum(times)) + ".");
  print_call(attached, counted(search.lists().count(), "list") + ", of which a search scans " +
                           std::to_string(search.probes()));
  const bool present = tour.index().has_ivf(kIvfKey);
  tour.show(present ? "1: the key has an IVF structure" : "0: the key has no IVF structure");
}

// Returns the ids of those that the vocabulary has.
std::vector<std::int64_t> candidate_ids(const Vocabulary& vocabulary) {
  std::vector<std::int64_t> ids;
  for (const char* candidate : kCandidates) {
    const std::optional<std::int64_t> id = vocabulary.find(candidate);
    if (id) ids.push_back(*id);
  }
  return ids;
}

void show_exact(Tour& tour) {
  const Query king = tour.query_for("king", 0);
  tour.begin_step("Exact search of the sealed base for " + in_quotes(king.text) +
                  "; the scores are cosines");
  const Hits all = tour.index().search_full(king.vector, tour.wanted(king));
  tour.show_hits("every row:", all, king);
  const std::int64_t key = tour.vocabulary().find("queen") ? 'q' : king.letter_key;
  const Hits letter = tour.index().search_partition(key, king.vector, tour.wanted(king));
  tour.show_hits("partition " + letter_name(key) + ":", letter, king);
  const std::vector<std::int64_t> candidates = candidate_ids(tour.vocabulary());
  const Hits among = tour.index().search_candidates(candidates, king.vector, tour.wanted(king));
  tour.show_hits("among " + counted(static_cast<std::int64_t>(candidates.size()), "id") +
                     " listed by the host:",
                 among, king);
}

void show_filters(Tour& tour) {
  const Query king = tour.query_for("king", 0);
  const Query queen = tour.query_for("queen", 1);
  Index& index = tour.index();
  tour.begin_step("Search what passes a test of the metadata");
  const std::array<std::int64_t, 2> ids = {king.word_ids[0], queen.word_ids[0]};
  const Metadata metadata = index.export_metadata(ids);
  std::string text;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    text += (i == 0 ? "" : "; ") + tour.vocabulary().word(ids[i]) + " has label " +
            letter_name(metadata.labels[i]) + ", length " + std::to_string(metadata.values[2 * i]) +
            ", band " + std::to_string(metadata.values[2 * i + 1]);
  }
  tour.show(text + " (the digits of its place by frequency)");
  const std::int64_t letter = queen.letter_key;
  const Hits label = index.search_filtered(Filter::label(letter), king.vector, tour.wanted(king));
  tour.show_hits("label " + letter_name(letter) + ":", label, king);
  const Filter length = Filter::column_value(kLengthColumn, 6);
  const Hits six = index.search_filtered(length, king.vector, tour.wanted(king));
  tour.show_hits("column 0, 6 characters:", six, king);
  const Filter band = Filter::column_value(kBandColumn, 3);
  const Hits frequent = index.search_filtered(band, king.vector, tour.wanted(king));
  tour.show_hits("column 1, band 3:", frequent, king);
  const std::vector<std::int64_t> matched = index.match_ids(length);
  tour.show(counted(static_cast<std::int64_t>(matched.size()), "word") + " of 6 characters");
}

void show_oversized_at(Tour& tour, std::int32_t threshold) {
  const Oversized found = tour.index().oversized_partitions(threshold);
  std::string list;
  for (std::size_t i = 0; i < found.keys.size(); ++i) {
    list += list.empty() ? ": " : ", ";
    list += letter_name(found.keys[i]) + " " + grouped(found.sizes[i]);
  }
  tour.show(counted(static_cast<std::int64_t>(found.keys.size()), "partition") + " of " +
            grouped(threshold) + " rows or more" + list);
}

void show_oversized(Tour& tour) {
  tour.begin_step("Find the partitions that are large enough to be split");
  const TunerDefaults defaults = engine_tuner_defaults(tour.search.log());
  tour.show("default tuning numbers " + grouped(defaults.first) + " and " +
            grouped(defaults.second));
  const std::int32_t threshold = static_cast<std::int32_t>(defaults.first);
  show_oversized_at(tour, threshold);
  const std::vector<std::int32_t>& sizes = tour.search.partitions().sizes;
  const std::int32_t largest = *std::max_element(sizes.begin(), sizes.end());
  // With few words nothing reaches the default threshold: half the largest partition always does.
  if (largest < threshold) show_oversized_at(tour, std::max(1, largest / 2));
}

}  // namespace

void Tour::begin_step(std::string_view title) {
  print_heading(std::to_string(++steps) + ". " + std::string(title));
}

void Tour::show(std::string_view text) { print_call(search.log().last(), text); }

void Tour::show_hits(std::string_view text, const Hits& hits, const Query& query) {
  const Hits kept = without_query_words(hits, query, k);
  show(std::string(text) + " " + hit_list(kept, vocabulary()));
}

Query Tour::query_for(std::string_view word, std::int64_t place) const {
  const std::int64_t last = vocabulary().original_size() - 1;
  return word_query(vocabulary().find(word).value_or(std::min(place, last)), search);
}

std::vector<std::int64_t> spread_ids(const Vocabulary& vocabulary, std::int64_t count) {
  const std::int64_t size = vocabulary.original_size();
  count = std::min(count, size);
  std::vector<std::int64_t> ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back(i * size / count);
  return ids;
}

bool run_tour(WordSearch& search, const TourOptions& options) {
  Tour tour{search, options.k};
  const std::int32_t version = engine_format_version(search.log());
  print_heading("qx_runtime on " + grouped(search.vocabulary().size()) + " English words, " +
                std::to_string(search.dimension()) + " numbers each");
  print_text("Every line that begins with qx_ is a call of the library, with the time it took.");
  tour.show("the version of the interface: " + std::to_string(version));
  show_build(tour);
  show_attachments(tour, options.probes);
  show_exact(tour);
  show_recall(tour);
  show_filters(tour);
  show_delete_and_insert(tour);
  show_new_row(tour);
  const bool exported = show_exports(tour);
  const bool copied = show_copy(tour);
  show_oversized(tour);
  show_costs(tour);
  return exported && copied;
}
