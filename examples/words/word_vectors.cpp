#include "word_vectors.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <unordered_set>
#include <utility>

#include "text.h"

namespace {

// Returns the first byte that is not blank, or 0 if the file is empty.
char first_byte(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char first = 0;
  if (!(file >> first) && !file.eof())
    throw UserError("cannot read " + in_quotes(path, kLongestPathShown));
  return first;
}

// Scales every vector to length 1 and leaves out the words whose vector has none.
void normalise_all(WordVectors& data) {
  const std::size_t dimension = static_cast<std::size_t>(data.dimension);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < data.words.size(); ++i) {
    float* vector = data.values.data() + i * dimension;
    if (!normalise(vector, dimension)) continue;
    if (kept != i) {
      std::copy_n(vector, dimension, data.values.data() + kept * dimension);
      data.words[kept] = std::move(data.words[i]);
    }
    ++kept;
  }
  data.skipped += static_cast<std::int64_t>(data.words.size() - kept);
  data.words.resize(kept);
  data.values.resize(kept * dimension);
}

void check_words(const WordVectors& data, const std::string& path) {
  if (data.words.empty()) throw UserError(in_quotes(path, kLongestPathShown) + " has no words");
  std::unordered_set<std::string> seen;
  seen.reserve(data.words.size());
  for (const std::string& word : data.words) {
    if (!is_word_text(word)) {
      throw UserError(in_quotes(path, kLongestPathShown) + " is damaged: its word " +
                      in_quotes(word) + " is not plain text");
    }
    if (!seen.insert(word).second) {
      throw UserError(in_quotes(path, kLongestPathShown) + " is damaged: the word " +
                      in_quotes(word) + " appears twice");
    }
  }
}

}  // namespace

WordVectors load_words(const std::string& path) {
  WordVectors data = first_byte(path) == '{' ? load_json(path) : load_sample(path);
  normalise_all(data);
  check_words(data, path);
  return data;
}

bool normalise(float* vector, std::size_t dimension) {
  double squares = 0;
  for (std::size_t i = 0; i < dimension; ++i) {
    squares += static_cast<double>(vector[i]) * static_cast<double>(vector[i]);
  }
  const double length = std::sqrt(squares);
  if (!(length > 0) || !std::isfinite(length)) return false;
  for (std::size_t i = 0; i < dimension; ++i) {
    vector[i] = static_cast<float>(static_cast<double>(vector[i]) / length);
  }
  return true;
}
