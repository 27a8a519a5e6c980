// Answers one request for neighbours, in each of the ways that suit it, side by side.
#ifndef WORDS_ANSWERS_H
#define WORDS_ANSWERS_H

#include <cstdint>
#include <optional>

#include "query.h"
#include "word_search.h"

struct Request {
  Query query;
  std::int32_t k = 0;                  // at least 1
  std::optional<std::int64_t> letter;  // only words with this letter key
  std::optional<std::int64_t> length;  // only words of this many characters
};

// Prints the answers and the times of their engine calls. Once a row has been inserted or deleted,
// every answer is of what is visible now; until then the sealed base is searched.
void print_answer(WordSearch& search, const Request& request);

#endif
