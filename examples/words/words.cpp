// Words and vectors in memory; word_file.cpp reads them from files.
#include "words.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "text.h"

bool normalise(std::span<float> vector) {
  const double squares =
      std::inner_product(vector.begin(), vector.end(), vector.begin(), 0.0, std::plus<>(),
                         [](double a, double b) { return a * b; });
  if (!(squares > 0)) return false;
  for (float& value : vector) value = static_cast<float>(value / std::sqrt(squares));
  return true;
}

std::vector<std::int64_t> first_ids(std::int64_t count) {
  std::vector<std::int64_t> ids(static_cast<std::size_t>(count));
  std::iota(ids.begin(), ids.end(), std::int64_t{0});
  return ids;
}

Words::Words(const std::string& path) {
  WordFile file = read_words(path);
  dim_ = file.dim;
  const auto width = static_cast<std::size_t>(dim_);
  vectors_.reserve(file.vectors.size());
  for (std::size_t i = 0; i < file.words.size(); ++i) {
    const std::span<float> vector = std::span(file.vectors).subspan(i * width, width);
    const bool plain = is_word(file.words[i]);
    if (!plain || ids_.contains(file.words[i])) {
      throw UserError(in_quotes(path, kLongestPath) + " is damaged: the word " +
                      in_quotes(file.words[i]) + (plain ? " appears twice" : " is not plain text"));
    }
    if (normalise(vector)) add(file.words[i], vector);
  }
  skipped_ = std::ssize(file.words) - size();
  if (words_.empty()) throw UserError(in_quotes(path, kLongestPath) + " has no words");
}

std::span<const float> Words::vector(std::int64_t id) const {
  const auto width = static_cast<std::size_t>(dim_);
  return std::span(vectors_).subspan(static_cast<std::size_t>(id) * width, width);
}

std::vector<float> Words::vectors(const std::vector<std::int64_t>& ids) const {
  std::vector<float> vectors;
  vectors.reserve(ids.size() * static_cast<std::size_t>(dim_));
  for (const std::int64_t id : ids) {
    vectors.insert(vectors.end(), vector(id).begin(), vector(id).end());
  }
  return vectors;
}

std::vector<std::int64_t> Words::spread(std::int64_t count) const {
  std::vector<std::int64_t> ids = first_ids(std::min(count, size()));
  for (std::int64_t& id : ids) id = id * size() / std::ssize(ids);
  return ids;
}

std::optional<std::int64_t> Words::find(const std::string& word) const {
  const auto found = ids_.find(word);
  return found == ids_.end() ? std::nullopt : std::optional(found->second);
}

std::int64_t Words::require(const std::string& typed) const {
  const std::string small = lower_case(typed);
  if (const auto id = find(typed)) return *id;
  if (const auto id = find(small)) return *id;
  const std::string similar = most_similar(small);
  throw UserError(in_quotes(typed) + " is not among the " + grouped(size()) + " words" +
                  (similar.empty() ? "" : "; did you mean " + in_quotes(similar) + "?"));
}

std::int64_t Words::add(const std::string& word, std::span<const float> vector) {
  ids_.emplace(word, size());
  words_.push_back(word);
  vectors_.insert(vectors_.end(), vector.begin(), vector.end());
  return size() - 1;
}

// The most frequent of the words that one step makes: a byte left out, swapped with the next one,
// replaced or added.
std::string Words::most_similar(const std::string& word) const {
  std::int64_t best = size();
  const auto consider = [&](std::size_t at, std::size_t bytes, const std::string& instead) {
    if (at + bytes > word.size()) return;
    best = std::min(best, find(std::string(word).replace(at, bytes, instead)).value_or(best));
  };
  if (word.size() < 2 || word.size() > 32) return "";
  for (std::size_t at = 0; at <= word.size(); ++at) {
    consider(at, 1, "");
    if (at + 1 < word.size()) consider(at, 2, {word[at + 1], word[at]});
    for (char letter = 'a'; letter <= 'z'; ++letter) {
      consider(at, 1, {letter});
      consider(at, 0, {letter});
    }
  }
  return best == size() ? "" : words_[static_cast<std::size_t>(best)];
}

std::int64_t Words::letter(std::int64_t id) const {
  const char first = word(id).front();
  return first >= 'a' && first <= 'z' ? first : kOtherLetter;
}

std::int64_t Words::length(std::int64_t id) const {
  return static_cast<std::int64_t>(characters(word(id)));
}

std::int64_t parse_letter(const std::string& typed) {
  const std::string small = lower_case(typed);
  if (small == "#" || (small.size() == 1 && small[0] >= 'a' && small[0] <= 'z')) return small[0];
  throw UserError("a letter is one of a to z, or # for everything else, not " + in_quotes(typed));
}
