// The words by id and the ids by word, and what the host knows of a word: the numbers that become
// its label and its columns. It knows nothing of vectors or of the engine.
#ifndef WORDS_VOCABULARY_H
#define WORDS_VOCABULARY_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// A letter key: the code of 'a' to 'z', or kOtherLetters for a word that begins with anything else.
// It is smaller than the letters, so that ascending keys begin with it.
constexpr std::int64_t kOtherLetters = '#';

// The metadata columns of a word.
constexpr std::int32_t kLengthColumn = 0;
constexpr std::int32_t kBandColumn = 1;
constexpr std::int32_t kColumnCount = 2;

class Vocabulary {
 public:
  // The words from the most frequent to the rarest, all different. The id of a word is its place.
  explicit Vocabulary(std::vector<std::string> words);

  std::int64_t size() const { return static_cast<std::int64_t>(words_.size()); }
  // The number of words given at the start: ids from here on were added.
  std::int64_t original_size() const { return original_size_; }
  bool contains(std::int64_t id) const { return id >= 0 && id < size(); }
  const std::string& word(std::int64_t id) const { return words_[static_cast<std::size_t>(id)]; }

  std::optional<std::int64_t> find(std::string_view word) const;
  // Finds a word that the user typed, with capitals made small. Throws UserError, with the most
  // similar word if there is one, when the word is unknown.
  std::int64_t require(std::string_view typed) const;
  // Adds a word that is not there yet and returns its id.
  std::int64_t add(const std::string& word);

  std::int64_t letter_key(std::int64_t id) const;
  // The number of characters.
  std::int64_t length(std::int64_t id) const;
  // The number of digits of the word's place: 1 for the ten most frequent words, 2 for the next
  // ninety, and so on. An added word has band 0.
  std::int64_t band(std::int64_t id) const;

 private:
  std::string similar_word(std::string_view word) const;

  std::vector<std::string> words_;
  std::unordered_map<std::string, std::int64_t> ids_;
  std::int64_t original_size_;
};

// Returns the letter key that the user typed: a to z in either case, or #. Throws UserError.
std::int64_t parse_letter(std::string_view typed);

// Returns "k", or "#" for kOtherLetters.
std::string letter_name(std::int64_t key);

#endif
