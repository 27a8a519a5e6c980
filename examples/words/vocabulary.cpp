#include "vocabulary.h"

#include <algorithm>
#include <utility>

#include "text.h"

namespace {

// A suggestion may differ from what was typed by this many steps, and no word of more bytes than
// this is compared.
constexpr std::size_t kMostSteps = 2;
constexpr std::size_t kLongestCompared = 32;

// Returns how many single bytes must be added, removed, replaced or swapped with their neighbour to
// turn one word into the other, or any number above kMostSteps when it is above that.
std::size_t edit_steps(std::string_view left, std::string_view right) {
  std::size_t rows[3][kLongestCompared + 1] = {};
  for (std::size_t j = 0; j <= right.size(); ++j) rows[0][j] = j;
  for (std::size_t i = 1; i <= left.size(); ++i) {
    std::size_t* now = rows[i % 3];
    const std::size_t* before = rows[(i + 2) % 3];
    const std::size_t* two_before = rows[(i + 1) % 3];
    now[0] = i;
    std::size_t smallest = i;
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const std::size_t replaced = before[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      now[j] = std::min({replaced, before[j] + 1, now[j - 1] + 1});
      const bool swapped =
          i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1];
      if (swapped) now[j] = std::min(now[j], two_before[j - 2] + 1);
      smallest = std::min(smallest, now[j]);
    }
    if (smallest > kMostSteps + 1) return smallest;
  }
  return rows[left.size() % 3][right.size()];
}

}  // namespace

Vocabulary::Vocabulary(std::vector<std::string> words)
    : words_(std::move(words)), original_size_(static_cast<std::int64_t>(words_.size())) {
  ids_.reserve(words_.size());
  for (std::size_t i = 0; i < words_.size(); ++i) {
    ids_.emplace(words_[i], static_cast<std::int64_t>(i));
  }
}

std::optional<std::int64_t> Vocabulary::find(std::string_view word) const {
  const auto found = ids_.find(std::string(word));
  if (found == ids_.end()) return std::nullopt;
  return found->second;
}

std::int64_t Vocabulary::require(std::string_view typed) const {
  const std::optional<std::int64_t> exact = find(typed);
  if (exact) return *exact;
  const std::string small = lower_case(typed);
  const std::optional<std::int64_t> found = find(small);
  if (found) return *found;
  const std::string similar = similar_word(small);
  throw UserError(in_quotes(typed) + " is not among the " + grouped(size()) + " words" +
                  (similar.empty() ? "" : "; did you mean " + in_quotes(similar) + "?"));
}

std::int64_t Vocabulary::add(const std::string& word) {
  const std::int64_t id = size();
  words_.push_back(word);
  ids_.emplace(word, id);
  return id;
}

// The words stand from the most frequent to the rarest, so the first of the most similar wins.
std::string Vocabulary::similar_word(std::string_view word) const {
  std::size_t fewest = kMostSteps + 1;
  std::string similar;
  if (word.size() > kLongestCompared) return similar;
  for (const std::string& candidate : words_) {
    const bool longer = candidate.size() > word.size();
    const std::size_t difference =
        longer ? candidate.size() - word.size() : word.size() - candidate.size();
    if (difference >= fewest || candidate.size() > kLongestCompared) continue;
    const std::size_t steps = edit_steps(word, candidate);
    // A suggestion that shares no letter with a short word helps nobody.
    if (steps >= fewest || steps >= word.size()) continue;
    fewest = steps;
    similar = candidate;
  }
  return similar;
}

std::int64_t Vocabulary::letter_key(std::int64_t id) const {
  const char first = word(id).front();
  return first >= 'a' && first <= 'z' ? first : kOtherLetters;
}

std::int64_t Vocabulary::length(std::int64_t id) const {
  return static_cast<std::int64_t>(character_count(word(id)));
}

std::int64_t Vocabulary::band(std::int64_t id) const {
  if (id >= original_size_) return 0;
  return static_cast<std::int64_t>(std::to_string(id + 1).size());
}

std::int64_t parse_letter(std::string_view typed) {
  const std::string small = lower_case(typed);
  const bool letter = small.size() == 1 && small[0] >= 'a' && small[0] <= 'z';
  if (!letter && small != "#") {
    throw UserError("a letter is one of a to z, or # for everything else, not " + in_quotes(typed));
  }
  return small[0];
}

std::string letter_name(std::int64_t key) { return std::string(1, static_cast<char>(key)); }
