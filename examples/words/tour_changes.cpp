#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>

#include "progress.h"
#include "report.h"
#include "text.h"
#include "tour_steps.h"

namespace {

constexpr std::int64_t kComparedWords = 50;
constexpr std::int32_t kComparedNeighbours = 10;

// True if every exported row has the bits of the vector that the host has for its id.
bool has_host_bits(const Rows& rows, const WordSearch& search) {
  const std::size_t dimension = static_cast<std::size_t>(search.dimension());
  for (std::size_t i = 0; i < rows.ids.size(); ++i) {
    if (!search.vocabulary().contains(rows.ids[i])) return false;
    const std::span<const float> own = search.vector(rows.ids[i]);
    if (std::memcmp(own.data(), rows.vectors.data() + i * dimension, own.size_bytes()) != 0) {
      return false;
    }
  }
  return true;
}

std::string verdict(bool same) { return same ? "identical" : "DIFFERENT"; }

// Compares the current answers of two indexes, and counts the pairs of answers.
class Comparison {
 public:
  Comparison(const Index& left, const Index& right) : left_(left), right_(right) {}

  void compare(const Query& query, const std::vector<std::int64_t>& ids, std::int64_t length) {
    compare_filter(Filter::every_row(), query);
    compare_filter(Filter::label(query.letter_key), query);
    compare_filter(Filter::column_value(kLengthColumn, length), query);
    add(left_.search_current(ids, query.vector, kComparedNeighbours),
        right_.search_current(ids, query.vector, kComparedNeighbours));
    // All that is visible in the one is the sealed base of the other.
    add(left_.search_filtered(Filter::every_row(), query.vector, kComparedNeighbours),
        right_.search_full(query.vector, kComparedNeighbours));
  }

  std::int64_t pairs() const { return pairs_; }
  std::int64_t differences() const { return differences_; }

 private:
  void compare_filter(const Filter& filter, const Query& query) {
    add(left_.search_filtered(filter, query.vector, kComparedNeighbours),
        right_.search_filtered(filter, query.vector, kComparedNeighbours));
  }

  void add(const Hits& left, const Hits& right) {
    ++pairs_;
    if (!identical(left, right)) ++differences_;
  }

  const Index& left_;
  const Index& right_;
  std::int64_t pairs_ = 0;
  std::int64_t differences_ = 0;
};

void compare_words(Comparison& comparison, const WordSearch& search,
                   const std::vector<std::int64_t>& ids) {
  Progress progress("Comparing the copy with the original", std::ssize(ids));
  for (const std::int64_t id : ids) {
    comparison.compare(word_query(id, search), ids, search.vocabulary().length(id));
    progress.advance();
  }
}

// IVF structures belong to an index: the copy gets the lists of the original, and loses them.
void show_clear_ivf(Tour& tour, Index& copy) {
  const Query king = tour.query_for("king", 0);
  copy.set_ivf(kIvfKey, tour.search.probes(), tour.search.lists());
  tour.show("the copy gets the same lists");
  const Hits hits = copy.search_ivf(kIvfKey, king.vector, tour.wanted(king));
  tour.show_hits("from the copy, which has no " + tour.query_for("prince", 3).text + ":", hits,
                 king);
  copy.clear_ivf();
  tour.show("all IVF structures of the copy released");
  const bool present = copy.has_ivf(kIvfKey);
  tour.show(present ? "1: the key still has a structure" : "0: the key has no structure now");
}

void show_counters(Tour& tour) {
  Index& index = tour.index();
  const bool mutated = index.mutated();
  tour.show(mutated ? "1: there have been inserts or deletes" : "0: nothing was changed so far");
  const std::uint64_t snapshot = index.snapshot();
  tour.show("the snapshot counter is " + std::to_string(snapshot));
  const std::int64_t delta = index.delta_count();
  tour.show(counted(delta, "row") + " in the delta");
}

}  // namespace

void show_delete_and_insert(Tour& tour) {
  WordSearch& search = tour.search;
  Index& index = tour.index();
  const Query king = tour.query_for("king", 0);
  const Query queen = tour.query_for("queen", 1);
  const std::int64_t id = queen.word_ids[0];
  tour.begin_step("Delete " + in_quotes(queen.text) + ", and insert it again");
  show_counters(tour);
  const std::uint64_t deleted = search.erase(id);
  tour.show(queen.text + " deleted; snapshot " + std::to_string(deleted));
  Hits hits = index.search_filtered(Filter::every_row(), king.vector, tour.wanted(king));
  tour.show_hits("visible now:", hits, king);
  hits = index.search_full(king.vector, tour.wanted(king));
  tour.show_hits("still sealed:", hits, king);
  const std::vector<std::int64_t> pair = {king.word_ids[0], id};
  hits = index.search_current(pair, king.vector, 2);
  tour.show("of the ids of " + king.text + " and " + queen.text +
            ", as they are now: " + hit_list(hits, tour.vocabulary()));
  const std::uint64_t inserted = search.insert(id);
  tour.show(queen.text + " inserted; snapshot " + std::to_string(inserted));
  hits = index.search_filtered(Filter::every_row(), king.vector, tour.wanted(king));
  tour.show_hits("visible now:", hits, king);
  show_counters(tour);
}

void show_new_row(Tour& tour) {
  WordSearch& search = tour.search;
  Query sum = tour.query_for("king", 0);
  const Query man = tour.query_for("man", 1);
  const Query woman = tour.query_for("woman", 2);
  sum = parse_query(sum.text + " - " + man.text + " + " + woman.text, search);
  tour.begin_step("Insert a row that no word has: " + sum.text);
  const std::string name = "(" + sum.text + ")";
  const std::int64_t id = search.insert_new(name, sum.vector);
  tour.show("new id " + std::to_string(id) + ", shown as " + name);
  Index& index = tour.index();
  // Nothing is left out of this answer: the new row itself comes first.
  const Hits near = index.search_filtered(Filter::every_row(), sum.vector, tour.k + 1);
  tour.show("nearest to the sum: " + hit_list(near, tour.vocabulary()));
  const Query queen = tour.query_for("queen", 1);
  const Hits found = index.search_filtered(Filter::every_row(), queen.vector, tour.wanted(queen));
  tour.show_hits("nearest to " + queen.text + ":", found, queen);
}

bool show_exports(Tour& tour) {
  WordSearch& search = tour.search;
  Index& index = tour.index();
  const Query prince = tour.query_for("prince", 3);
  tour.begin_step("Count, list and export what is visible");
  search.erase(prince.word_ids[0]);
  tour.show(prince.text + " deleted, so that sealed and visible rows differ");
  const std::int64_t count = index.visible_count();
  tour.show(grouped(count) + " rows visible: the sealed ones, less one, and the new one");
  const std::vector<std::int64_t> ids = index.visible_ids();
  std::string first;
  for (std::size_t i = 0; i < std::min<std::size_t>(ids.size(), 4); ++i) {
    first += (i == 0 ? "" : ", ") + in_quotes(search.vocabulary().word(ids[i]));
  }
  tour.show(grouped(static_cast<std::int64_t>(ids.size())) + " ids, inserted rows first: " + first +
            ", ...");
  const Rows base = index.export_base();
  const bool base_same = has_host_bits(base, search);
  tour.show(grouped(static_cast<std::int64_t>(base.ids.size())) +
            " sealed rows, compared with the host's vectors bit for bit: " + verdict(base_same));
  const Rows visible = index.export_visible();
  const bool visible_same = has_host_bits(visible, search) && visible.ids == ids;
  tour.show(grouped(static_cast<std::int64_t>(visible.ids.size())) +
            " visible rows, compared likewise: " + verdict(visible_same));
  return base_same && visible_same;
}

bool show_copy(Tour& tour) {
  WordSearch& search = tour.search;
  tour.begin_step("Build a new index from the export, and compare its answers");
  const Rows visible = tour.index().export_visible();
  tour.show("vectors and ids of the visible rows");
  const Metadata metadata = tour.index().export_metadata(visible.ids);
  tour.show("their labels and columns");
  Index copy(search.dimension(), 0, search.log());
  tour.show("the copy");
  if (!copy.build(visible, {})) return false;
  tour.show(grouped(static_cast<std::int64_t>(visible.ids.size())) + " rows, no partitions");
  copy.set_metadata(visible.ids, metadata);
  tour.show("the same metadata");
  const std::vector<std::int64_t> ids = spread_ids(search.vocabulary(), kComparedWords);
  Comparison comparison(tour.index(), copy);
  compare_words(comparison, search, ids);
  const bool same = comparison.differences() == 0;
  print_text(grouped(comparison.pairs()) + " pairs of answers to " + std::to_string(ids.size()) +
             " words compared, ids and the bits of every score: " +
             (same ? "all identical." : grouped(comparison.differences()) + " are DIFFERENT."));
  show_clear_ivf(tour, copy);
  copy.release();
  tour.show("the copy is gone");
  const std::int64_t prince = tour.query_for("prince", 3).word_ids[0];
  search.insert(prince);
  tour.show(search.vocabulary().word(prince) + " inserted again, in the original");
  return same;
}
