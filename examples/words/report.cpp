#include "report.h"

#include <algorithm>
#include <cstdio>

#include "query.h"
#include "text.h"

namespace {

constexpr std::size_t kPageWidth = 100;
constexpr std::size_t kIndent = 3;
constexpr std::size_t kFunctionWidth = 26;
constexpr std::size_t kTimeWidth = 8;
constexpr std::size_t kCallTextAt = kIndent + kFunctionWidth + kTimeWidth + 3;

constexpr std::size_t kRankWidth = 6;
constexpr std::size_t kColumnWidth = 28;
constexpr std::size_t kColumnGap = 3;
constexpr std::size_t kScoreWidth = 7;

// Stands for a blank at which a line must not end. No word has it: it is a control character.
constexpr char kGlue = '\x1f';

std::string glued(std::string text) {
  std::replace(text.begin(), text.end(), ' ', kGlue);
  return text;
}

void print_line(std::string line) {
  std::replace(line.begin(), line.end(), kGlue, ' ');
  line.erase(line.find_last_not_of(' ') + 1);
  line += '\n';
  std::fputs(line.c_str(), stdout);
}

std::string right_aligned(std::string_view text, std::size_t width) {
  const std::size_t characters = character_count(text);
  return std::string(width > characters ? width - characters : 0, ' ') + std::string(text);
}

// Prints the text after the beginning of a line, and wraps it under itself.
void print_wrapped(std::string line, std::string_view text) {
  const std::size_t indent = character_count(line);
  std::size_t used = indent;
  for (const std::string& word : split_fields(text)) {
    const std::size_t characters = character_count(word);
    if (used > indent && used + 1 + characters > kPageWidth) {
      print_line(line);
      line.assign(indent, ' ');
      used = indent;
    }
    if (used > indent) {
      line += ' ';
      ++used;
    }
    line += word;
    used += characters;
  }
  print_line(line);
}

std::string column_cell(const AnswerColumn& column, std::size_t rank,
                        const Vocabulary& vocabulary) {
  if (rank >= column.hits.size()) {
    return rank == 0 ? "(nothing)" : "";
  }
  const Hit& hit = column.hits[rank];
  return fitted(vocabulary.word(hit.id), kColumnWidth - kScoreWidth) +
         right_aligned(decimal(static_cast<double>(hit.score), 4), kScoreWidth);
}

// Prints one line of the columns, whose cells the function makes.
template <typename Cell>
void print_cells(const std::vector<AnswerColumn>& columns, std::string line, Cell cell) {
  line = fitted(right_aligned(line, kRankWidth - 2), kRankWidth);
  for (const AnswerColumn& column : columns) {
    line += fitted(cell(column), kColumnWidth) + std::string(kColumnGap, ' ');
  }
  print_line(line);
}

}  // namespace

void print_heading(std::string_view title) {
  std::fputs("\n", stdout);
  print_line(std::string(title));
}

void print_text(std::string_view text) { print_wrapped(std::string(kIndent, ' '), text); }

void print_call(const Call& call, std::string_view text) {
  const std::string line = std::string(kIndent, ' ') + fitted(call.function, kFunctionWidth) +
                           right_aligned(time_text(call.nanoseconds), kTimeWidth);
  print_wrapped(fitted(line, kCallTextAt), text);
}

std::string hit_list(const Hits& hits, const Vocabulary& vocabulary) {
  if (hits.empty()) return "nothing";
  std::string list;
  for (const Hit& hit : hits) {
    list += list.empty() ? "" : ", ";
    const std::string score = decimal(static_cast<double>(hit.score), 3);
    list += glued(vocabulary.word(hit.id) + " " + score);
  }
  return list;
}

void print_columns(const std::vector<AnswerColumn>& columns, const Vocabulary& vocabulary) {
  print_cells(columns, "", [](const AnswerColumn& column) { return column.title; });
  print_cells(columns, "", [](const AnswerColumn& column) { return column.call.function; });
  print_cells(columns, "",
              [](const AnswerColumn& column) { return time_text(column.call.nanoseconds); });
  std::size_t ranks = 1;
  for (const AnswerColumn& column : columns) ranks = std::max(ranks, column.hits.size());
  for (std::size_t rank = 0; rank < ranks; ++rank) {
    print_cells(columns, std::to_string(rank + 1),
                [&](const AnswerColumn& column) { return column_cell(column, rank, vocabulary); });
  }
}

void Table::print_row(const std::vector<std::string>& cells) const {
  std::string line(kIndent, ' ');
  for (std::size_t i = 0; i < widths_.size(); ++i) {
    line += i == 0 ? fitted(cells[i], widths_[i]) : right_aligned(cells[i], widths_[i]);
  }
  print_line(line);
}
