// A word or a sum, searched by different calls, and the answers side by side; and the tour of them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "word_index.h"

struct Query {
  std::string text;               // "king - man + woman"
  std::vector<float> vector;      // of length 1
  std::vector<std::int64_t> ids;  // of its words, which answers leave out
  std::int64_t letter;            // of its first word
};

// Throws a UserError: a word is unknown, the sum not well formed, or it adds up to nothing.
Query parse_query(const std::string& text, const Words& words);

// The median time of a call, in nanoseconds: made so often, or at least 3 times in a tenth of a
// second. What each call needs is made before its time begins.
double time_of(int repetitions, const std::function<void()>& call,
               const std::function<void()>& before = nullptr);

// Makes a call once, and prints it with its time and a remark.
void show_call(const std::string& name, const std::string& remark,
               const std::function<void()>& call);

// An answer of at most k words.
struct Column {
  std::string title;
  std::string call;
  double nanoseconds;
  std::vector<qx::Hit> hits;
};

// One query, and the ways to search for it.
struct Asker {
  using Search = std::function<qx::Hits(std::int64_t k)>;
  using Ids = std::vector<std::int64_t>;

  Column ask(const std::string& title, const std::string& call, const Search& search) const;
  Column full(const std::string& title) const;
  Column partition(std::int64_t letter) const;
  Column ivf() const;
  Column ivf_now() const;
  Column now(const std::string& title, const Ids& ids) const;
  Column filtered(const std::string& title, const qx::Filter& filter) const;
  Column label(std::int64_t letter) const;
  Column length(std::int64_t characters) const;
  Column label_and_length(std::int64_t letter, std::int64_t characters) const;

  const WordIndex& words;
  Query query;
  std::int64_t k;
};

void print_columns(const std::vector<Column>& columns, const Words& words);

// Prints k answers in each way that suits the query, of words with the letter and the length if
// they are given: of the sealed base until a row was changed, then of what is visible now.
void answer(const WordIndex& search, const Query& query, std::int64_t k,
            std::optional<std::int64_t> letter, std::optional<std::int64_t> length);

// The tour, in tour.cpp: what the library does, on the words, k neighbours a time, and what a call
// of each function costs. Leaves the search ready for questions.
void run_tour(WordIndex& search, std::int64_t k);
