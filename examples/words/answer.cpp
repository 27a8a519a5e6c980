// How queries are read, searched for, and answered in print.
#include "answer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>

#include "text.h"

namespace {

constexpr std::size_t kMostFields = 31;  // 16 words
constexpr int kRepetitions = 5;          // the first finds nothing in the caches
constexpr std::size_t kWordWidth = 21;
constexpr std::size_t kScoreWidth = 7;

void check_form(const std::vector<std::string>& fields) {
  if (fields.empty()) throw UserError("there is no word to look for");
  if (fields.size() > kMostFields) throw UserError("the sum has more than 16 words");
  for (std::size_t i = 1; i < fields.size(); i += 2) {
    if (fields[i] == "+" || fields[i] == "-") continue;
    throw UserError("between two words stands + or -, not " + in_quotes(fields[i]));
  }
  if (fields.size() % 2 == 0) throw UserError("no word follows the last sign");
}

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
  check_form(fields);
  Query query{"", std::vector<float>(static_cast<std::size_t>(words.dim())), {}, 0};
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    const std::int64_t id = words.require(fields[i]);
    const float sign = i > 0 && fields[i - 1] == "-" ? -1.0f : 1.0f;
    std::ranges::transform(query.vector, words.vector(id), query.vector.begin(),
                           [sign](float sum, float value) { return sum + sign * value; });
    query.text += (i == 0 ? "" : " " + fields[i - 1] + " ") + words.word(id);
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
  const double time = time_of(kRepetitions, [&] { hits = search(k_ + std::ssize(query_.ids)); });
  Column column{title, "qx_index_" + call, time, {}};
  for (const qx::Hit hit : hits) {
    const bool asked = std::ranges::find(query_.ids, hit.id) != query_.ids.end();
    if (!asked && std::ssize(column.hits) < k_) column.hits.push_back(hit);
  }
  return column;
}

// An IVF search sees the sealed base. What it finds is read again as it is now, four times as much,
// since some may be deleted; words that were added are offered beside it.
Column Asker::ivf_now() const {
  return ask(probes(), "search_ivf + _mvcc", [&](std::int64_t k) {
    std::vector<std::int64_t> ids = index_.search_ivf(kIvfKey, query_.vector, 4 * k).ids;
    for (std::int64_t id = index_.size(); id < search_.words.size(); ++id) ids.push_back(id);
    return index_.search_mvcc(ids, query_.vector, k);
  });
}

// A search tests one thing. The host tests the other, and lists what passes both.
Column Asker::label_and_length(std::int64_t letter, std::int64_t characters) const {
  std::vector<std::int64_t> ids = index_.match_ids(qx::Filter::label(letter));
  std::erase_if(ids, [&](auto id) { return search_.words.length(id) != characters; });
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
  const Asker ask(search, query, k);
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
    columns = {ask.visible("visible now"), ask.ivf_now(), ask.label(query.letter)};
  } else {
    columns = {ask.full("every word"), ask.ivf(), ask.partition(query.letter)};
  }
  say("\nNearest to " + in_quotes(query.text) + ", by cosine; times are the median of " +
      std::to_string(kRepetitions) + " calls");
  print_columns(columns, search.words);
}
