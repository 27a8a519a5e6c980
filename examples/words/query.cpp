#include "query.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "text.h"

namespace {

constexpr std::size_t kMostFields = 31;
constexpr std::string_view kBlanks = " \t\r\n\v\f";
// Words have length 1: a sum this short is what rounding leaves of words that cancel out.
constexpr double kShortestSum = 1e-3;

double squared_length(const std::vector<float>& vector) {
  return std::inner_product(vector.begin(), vector.end(), vector.begin(), 0.0);
}

// Throws unless the fields are words with signs between them.
void check_form(const std::vector<std::string>& fields) {
  if (fields.empty()) throw UserError("there is no word to look for");
  if (fields.size() > kMostFields) throw UserError("the sum has more than 16 words");
  for (std::size_t i = 1; i < fields.size(); i += 2) {
    if (fields[i] == "+" || fields[i] == "-") continue;
    throw UserError("between two words stands + or -, not " + in_quotes(fields[i]));
  }
  if (fields.size() % 2 == 0) throw UserError("no word follows the last sign");
}

}  // namespace

std::vector<std::string> split_fields(std::string_view text) {
  std::vector<std::string> fields;
  while (true) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return fields;
    text.remove_prefix(begin);
    const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
    fields.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

Query parse_query(std::string_view text, const WordSearch& search) {
  const std::vector<std::string> fields = split_fields(text);
  check_form(fields);
  Query query;
  query.vector.resize(static_cast<std::size_t>(search.dimension()));
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    const std::string sign = i == 0 ? "+" : fields[i - 1];
    const std::int64_t id = search.vocabulary().require(fields[i]);
    const std::span<const float> vector = search.vector(id);
    for (std::size_t j = 0; j < vector.size(); ++j) {
      query.vector[j] += sign == "+" ? vector[j] : -vector[j];
    }
    query.text += (i == 0 ? "" : " " + sign + " ") + search.vocabulary().word(id);
    query.word_ids.push_back(id);
  }
  if (squared_length(query.vector) < kShortestSum * kShortestSum) {
    throw UserError(in_quotes(query.text) + " adds up to nothing");
  }
  normalise(query.vector.data(), query.vector.size());
  query.letter_key = search.vocabulary().letter_key(query.word_ids.front());
  return query;
}

Query word_query(std::int64_t id, const WordSearch& search) {
  const std::span<const float> vector = search.vector(id);
  const Vocabulary& vocabulary = search.vocabulary();
  return {vocabulary.word(id), {vector.begin(), vector.end()}, {id}, vocabulary.letter_key(id)};
}

Hits without_query_words(const Hits& hits, const Query& query, std::int32_t k) {
  Hits kept;
  for (const Hit& hit : hits) {
    if (static_cast<std::int32_t>(kept.size()) == k) break;
    const auto found = std::find(query.word_ids.begin(), query.word_ids.end(), hit.id);
    if (found == query.word_ids.end()) kept.push_back(hit);
  }
  return kept;
}

std::int32_t surplus(const Query& query) {
  return static_cast<std::int32_t>(query.word_ids.size());
}
