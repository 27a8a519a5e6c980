#include "answers.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "report.h"
#include "text.h"

namespace {

// How many times more IVF candidates than wanted are read again as they are now, so that enough
// remain when some of them are deleted.
constexpr std::int32_t kSpareCandidates = 4;

// The first call finds nothing in the caches; the median of a few shows what a call costs.
constexpr int kRepetitions = 5;

// One request on its way: every method is one way to answer it.
class Answering {
 public:
  Answering(WordSearch& search, const Request& request)
      : search_(search), index_(search.index()), request_(request) {}

  std::vector<AnswerColumn> columns() {
    if (request_.letter && request_.length) return {letter_and_length()};
    if (request_.length) return {filtered(length_title(), length_filter())};
    const bool changed = index_.mutated();
    if (request_.letter) {
      const std::int64_t letter = *request_.letter;
      if (changed) return {label(letter)};
      return {partition(letter), label(letter)};
    }
    const std::int64_t letter = request_.query.letter_key;
    if (changed) {
      return {filtered("visible now", Filter::every_row()), ivf_as_now(), label(letter)};
    }
    return {full(), ivf(), partition(letter)};
  }

 private:
  std::int32_t wanted() const { return request_.k + surplus(request_.query); }
  std::span<const float> vector() const { return request_.query.vector; }

  // Makes the search a few times, for its median time, and keeps its answer.
  template <typename Search>
  AnswerColumn column(std::string title, Search search) {
    std::vector<double> times;
    Hits hits;
    for (int i = 0; i < kRepetitions; ++i) {
      const double before = index_.log().total();
      hits = search();
      times.push_back(index_.log().total() - before);
    }
    return {std::move(title),
            {index_.log().last().function, median(std::move(times))},
            without_query_words(hits, request_.query, request_.k)};
  }

  AnswerColumn full() {
    return column("every word", [&] { return index_.search_full(vector(), wanted()); });
  }

  AnswerColumn ivf() {
    return column(probes_title(), [&] { return index_.search_ivf(kIvfKey, vector(), wanted()); });
  }

  // An IVF search sees the sealed base only. Its ids, read again as they are now, give the current
  // answer; rows that no list can name are offered beside them.
  AnswerColumn ivf_as_now() {
    AnswerColumn answer = column(probes_title(), [&] {
      std::vector<std::int64_t> ids;
      for (const Hit& hit : index_.search_ivf(kIvfKey, vector(), wanted() * kSpareCandidates)) {
        ids.push_back(hit.id);
      }
      const std::vector<std::int64_t>& added = search_.added_ids();
      ids.insert(ids.end(), added.begin(), added.end());
      return index_.search_current(ids, vector(), wanted());
    });
    answer.call.function = "qx_index_search_ivf + _mvcc";
    return answer;
  }

  AnswerColumn partition(std::int64_t letter) {
    return column("partition " + letter_name(letter),
                  [&] { return index_.search_partition(letter, vector(), wanted()); });
  }

  AnswerColumn label(std::int64_t letter) {
    return filtered("label " + letter_name(letter), Filter::label(letter));
  }

  AnswerColumn filtered(const std::string& title, const Filter& filter) {
    return column(title, [&] { return index_.search_filtered(filter, vector(), wanted()); });
  }

  // One search tests one thing. For two, the host intersects the matches and searches among them.
  AnswerColumn letter_and_length() {
    std::vector<std::int64_t> first = index_.match_ids(Filter::label(*request_.letter));
    print_call(index_.log().last(), counted(static_cast<std::int64_t>(first.size()), "word") +
                                        " with label " + letter_name(*request_.letter));
    std::vector<std::int64_t> second = index_.match_ids(length_filter());
    print_call(index_.log().last(),
               counted(static_cast<std::int64_t>(second.size()), "word") + " of " + length_title());
    std::sort(first.begin(), first.end());
    std::sort(second.begin(), second.end());
    std::vector<std::int64_t> both;
    std::set_intersection(first.begin(), first.end(), second.begin(), second.end(),
                          std::back_inserter(both));
    return column("both: " + counted(static_cast<std::int64_t>(both.size()), "word"),
                  [&] { return index_.search_current(both, vector(), wanted()); });
  }

  Filter length_filter() const { return Filter::column_value(kLengthColumn, *request_.length); }

  std::string length_title() const { return std::to_string(*request_.length) + " characters"; }

  std::string probes_title() const {
    return std::to_string(search_.probes()) + " of " + std::to_string(search_.lists().count()) +
           " IVF lists";
  }

  WordSearch& search_;
  Index& index_;
  const Request& request_;
};

}  // namespace

void print_answer(WordSearch& search, const Request& request) {
  print_heading("Nearest to " + in_quotes(request.query.text) +
                ", by cosine; times are the median of " + std::to_string(kRepetitions) + " calls");
  const std::vector<AnswerColumn> columns = Answering(search, request).columns();
  print_columns(columns, search.vocabulary());
}
