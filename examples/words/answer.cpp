// How queries are read, searched for, and answered in print.
#include "answer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>

#include "text.h"

namespace {

constexpr int kRepetitions = 5;  // the first finds nothing in the caches
constexpr std::size_t kWordWidth = 21;
constexpr std::size_t kScoreWidth = 7;

// Prints the rank, and what the function makes of each column.
void print_line(const std::vector<Column>& columns, const std::string& rank,
                const std::function<std::string(const Column&)>& cell) {
  std::string line = right(rank, 4) + "  ";
  for (const Column& column : columns) {
    line += left(cell(column), kWordWidth + kScoreWidth) + "   ";
  }
  say(line);
}

}  // namespace

Query parse_query(const std::string& text, const Words& words) {
  const std::vector<std::string> fields = split(text);
  if (fields.size() % 2 == 0) throw UserError("a sum begins and ends with a word");
  Query query{"", std::vector<float>(static_cast<std::size_t>(words.dim())), {}, 0};
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    const std::string sign = i == 0 ? "+" : fields[i - 1];
    if (sign != "+" && sign != "-") {
      throw UserError("between two words stands + or -, not " + in_quotes(sign));
    }
    const std::int64_t id = words.require(fields[i]);
    std::ranges::transform(query.vector, words.vector(id), query.vector.begin(),
                           [factor = sign == "-" ? -1.0f : 1.0f](float sum, float value) {
                             return sum + factor * value;
                           });
    query.text += (i == 0 ? "" : " " + sign + " ") + words.word(id);
    query.ids.push_back(id);
  }
  // Less is what rounding leaves of words, whose length is 1, that cancel out.
  if (std::ranges::all_of(query.vector, [](float sum) { return std::abs(sum) < 1e-4f; })) {
    throw UserError(in_quotes(query.text) + " adds up to nothing");
  }
  normalise(query.vector);
  query.letter = words.letter(query.ids.front());
  return query;
}

double time_of(int repetitions, const std::function<void()>& call,
               const std::function<void()>& before) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> times;
  for (double sum = 0; std::ssize(times) < repetitions && (times.size() < 3 || sum < 1e8);) {
    if (before) before();
    const Clock::time_point start = Clock::now();
    call();
    times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
    sum += times.back();
  }
  std::ranges::nth_element(times, times.begin() + std::ssize(times) / 2);
  return times[times.size() / 2];
}

void show_call(const std::string& name, const std::string& remark,
               const std::function<void()>& call) {
  const std::string time = time_text(time_of(1, call));
  say("   " + left(name, 26) + right(time, 8) + "   " + remark);
}

Column Asker::ask(const std::string& title, const std::string& call, const Search& search) const {
  qx::Hits hits;
  const double time = time_of(kRepetitions, [&] { hits = search(k + std::ssize(query.ids)); });
  Column column{title, "qx_index_" + call, time, {}};
  for (const qx::Hit hit : hits) {
    const bool asked = std::ranges::find(query.ids, hit.id) != query.ids.end();
    if (!asked && std::ssize(column.hits) < k) column.hits.push_back(hit);
  }
  return column;
}

Column Asker::full(const std::string& title) const {
  return ask(title, "search_full",
             [&](auto most) { return words.index.search_full(query.vector, most); });
}

Column Asker::partition(std::int64_t letter) const {
  return ask(std::string("partition ") + static_cast<char>(letter), "search_partition",
             [&](auto most) { return words.index.search_partition(letter, query.vector, most); });
}

Column Asker::ivf() const {
  return ask(words.probes(), "search_ivf",
             [&](auto most) { return words.index.search_ivf(kIvfKey, query.vector, most); });
}

// An IVF search sees the sealed base. What it finds is read again as it is now, four times as much,
// since some may be deleted; words that were added are offered beside it.
Column Asker::ivf_now() const {
  return ask(words.probes(), "search_ivf + _mvcc", [&](std::int64_t most) {
    Ids ids = words.index.search_ivf(kIvfKey, query.vector, 4 * most).ids;
    for (std::int64_t id = words.index.size(); id < words.words.size(); ++id) ids.push_back(id);
    return words.index.search_mvcc(ids, query.vector, most);
  });
}

Column Asker::now(const std::string& title, const Ids& ids) const {
  return ask(title, "search_mvcc",
             [&](auto most) { return words.index.search_mvcc(ids, query.vector, most); });
}

Column Asker::filtered(const std::string& title, const qx::Filter& filter) const {
  return ask(title, "search_filtered",
             [&](auto most) { return words.index.search_filtered(filter, query.vector, most); });
}

Column Asker::label(std::int64_t letter) const {
  return filtered(std::string("label ") + static_cast<char>(letter), qx::Filter::label(letter));
}

Column Asker::length(std::int64_t characters) const {
  return filtered(std::to_string(characters) + " characters", qx::Filter::column(0, characters));
}

// A search tests one thing. The host tests the other, and lists what passes both.
Column Asker::label_and_length(std::int64_t letter, std::int64_t characters) const {
  Ids ids = words.index.match_ids(qx::Filter::label(letter));
  std::erase_if(ids, [&](auto id) { return words.words.length(id) != characters; });
  return now("both: " + grouped(std::ssize(ids)) + " words", ids);
}

void print_columns(const std::vector<Column>& columns, const Words& words) {
  print_line(columns, "", [](const Column& column) { return column.title; });
  print_line(columns, "", [](const Column& column) { return column.call; });
  print_line(columns, "", [](const Column& column) { return time_text(column.nanoseconds); });
  std::size_t ranks = 1;
  for (const Column& column : columns) ranks = std::max(ranks, column.hits.size());
  for (std::size_t rank = 0; rank < ranks; ++rank) {
    print_line(columns, std::to_string(rank + 1), [&](const Column& column) -> std::string {
      if (rank >= column.hits.size()) return rank == 0 ? "(nothing)" : "";
      const auto [id, score] = column.hits[rank];
      return left(words.word(id), kWordWidth) + right(decimal(score, 4), kScoreWidth);
    });
  }
}

void answer(const WordIndex& search, const Query& query, std::int64_t k,
            std::optional<std::int64_t> letter, std::optional<std::int64_t> length) {
  const Asker ask{search, query, k};
  const bool changed = search.index.mutated();
  std::vector<Column> columns;
  if (letter && length) {
    columns = {ask.label_and_length(*letter, *length)};
  } else if (length) {
    columns = {ask.length(*length)};
  } else if (letter) {
    columns = {ask.label(*letter)};
    if (!changed) columns.push_back(ask.partition(*letter));
  } else if (changed) {
    columns = {ask.filtered("visible now", qx::Filter::all()), ask.ivf_now(),
               ask.label(query.letter)};
  } else {
    columns = {ask.full("every word"), ask.ivf(), ask.partition(query.letter)};
  }
  say("\nNearest to \"" + query.text + "\", by cosine; times are the median of " +
      std::to_string(kRepetitions) + " calls");
  print_columns(columns, search.words);
}
