// Prints to standard output, at most 100 columns wide.
#ifndef WORDS_REPORT_H
#define WORDS_REPORT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "call_log.h"
#include "index.h"
#include "vocabulary.h"

// An empty line and a title.
void print_heading(std::string_view title);

// A paragraph, indented and wrapped.
void print_text(std::string_view text);

// A line for an engine call: its name, its time and what it did, wrapped.
void print_call(const Call& call, std::string_view text);

// Returns "prince 0.768, queen 0.751", or "nothing" without hits.
std::string hit_list(const Hits& hits, const Vocabulary& vocabulary);

// One way to answer, and its answer.
struct AnswerColumn {
  std::string title;
  Call call;
  Hits hits;
};

// Up to three answers side by side, a line for each rank.
void print_columns(const std::vector<AnswerColumn>& columns, const Vocabulary& vocabulary);

// A table: the first column is aligned to the left and the others to the right. Every row has as
// many cells as there are widths.
class Table {
 public:
  explicit Table(std::vector<std::size_t> widths) : widths_(std::move(widths)) {}
  void print_row(const std::vector<std::string>& cells) const;

 private:
  std::vector<std::size_t> widths_;
};

#endif
