// A word or a sum, searched by different calls, and the answers side by side; and the tour of them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
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

// One query, and each way to search for it.
class Asker {
 public:
  Asker(const WordIndex& search, Query query, std::int64_t k)
      : search_(search), index_(search.index), query_(std::move(query)), k_(k) {}

  Column full(const std::string& title) const {
    return ask(title, "search_full", [&](auto k) { return index_.search_full(query_.vector, k); });
  }
  Column partition(std::int64_t letter) const {
    return ask(std::string("partition ") + static_cast<char>(letter), "search_partition",
               [&](auto k) { return index_.search_partition(letter, query_.vector, k); });
  }
  Column listed(const std::vector<std::int64_t>& ids) const {
    return ask("listed ids", "scatter_topk",
               [&](auto k) { return index_.scatter_topk(ids, query_.vector, k); });
  }
  Column ivf() const {
    return ask(probes(), "search_ivf",
               [&](auto k) { return index_.search_ivf(kIvfKey, query_.vector, k); });
  }
  Column ivf_now() const;
  Column now(const std::string& title, const std::vector<std::int64_t>& ids) const {
    return ask(title, "search_mvcc",
               [&](auto k) { return index_.search_mvcc(ids, query_.vector, k); });
  }
  Column filtered(const std::string& title, const qx::Filter& filter) const {
    return ask(title, "search_filtered",
               [&](auto k) { return index_.search_filtered(filter, query_.vector, k); });
  }
  Column visible(const std::string& title) const { return filtered(title, qx::Filter::all()); }
  Column label(std::int64_t letter) const {
    return filtered(std::string("label ") + static_cast<char>(letter), qx::Filter::label(letter));
  }
  Column length(std::int64_t characters) const {
    return filtered(std::to_string(characters) + " characters", qx::Filter::column(0, characters));
  }
  Column label_and_length(std::int64_t letter, std::int64_t characters) const;

 private:
  using Search = std::function<qx::Hits(std::int64_t k)>;
  Column ask(const std::string& title, const std::string& call, const Search& search) const;
  std::string probes() const {
    return std::to_string(search_.nprobe) + " of " + std::to_string(search_.lists.count()) +
           " IVF lists";
  }

  const WordIndex& search_;
  const qx::Index& index_;
  Query query_;
  std::int64_t k_;
};

void print_columns(const std::vector<Column>& columns, const Words& words);

// Prints k answers in each way that suits the query, of words with the letter and the length if
// they are given: of the sealed base until a row was changed, then of what is visible now.
void answer(const WordIndex& search, const Query& query, std::int64_t k,
            std::optional<std::int64_t> letter, std::optional<std::int64_t> length);

// The tour, in tour.cpp: what the library does, on the words, k neighbours a time, and what a call
// of each function costs. Leaves the search ready for questions.
void run_tour(WordIndex& search, std::int64_t k);
