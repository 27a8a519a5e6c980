// What a search looks for: a word, or a sum such as "king - man + woman".
#ifndef WORDS_QUERY_H
#define WORDS_QUERY_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "index.h"
#include "word_search.h"

struct Query {
  std::string text;                    // as it is shown: "king - man + woman"
  std::vector<float> vector;           // of length 1
  std::vector<std::int64_t> word_ids;  // the words in the sum, which answers leave out
  std::int64_t letter_key = 0;         // of the first word
};

// Reads words with " + " or " - " between them. Throws UserError: a word is unknown, the sum is
// not well formed, or it adds up to nothing.
Query parse_query(std::string_view text, const WordSearch& search);

// The query for one word.
Query word_query(std::int64_t id, const WordSearch& search);

// Returns the k best hits that are not words of the query. The hits hold surplus(query) more.
Hits without_query_words(const Hits& hits, const Query& query, std::int32_t k);
std::int32_t surplus(const Query& query);

// Splits at blanks.
std::vector<std::string> split_fields(std::string_view text);

#endif
