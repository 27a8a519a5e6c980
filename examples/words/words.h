// The words by id and the ids by word, with their vectors, and what a host knows of a word: the
// numbers that become its label and its columns. Nothing here knows of the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// Scales a vector to length 1. Returns false, with nothing changed, if it has no length.
bool normalise(std::span<float> vector);

// The ids 0 to count - 1.
std::vector<std::int64_t> first_ids(std::int64_t count);

// The letter of words that begin with none of a to z.
constexpr std::int64_t kOtherLetter = '#';

class Words {
 public:
  // Reads a file as data/README.md describes it. Throws a UserError where it cannot be read or is
  // damaged: nothing in it is trusted. An id is a word's place in the file. All vectors have length
  // 1, so that an inner product of two is their cosine.
  explicit Words(const std::string& path);

  std::int32_t dim() const { return dim_; }
  std::int64_t size() const { return std::ssize(words_); }
  const std::string& word(std::int64_t id) const { return words_.at(static_cast<std::size_t>(id)); }
  std::span<const float> vector(std::int64_t id) const;
  std::vector<float> vectors(const std::vector<std::int64_t>& ids) const;
  // So many words or all, spread evenly.
  std::vector<std::int64_t> spread(std::int64_t count) const;

  std::optional<std::int64_t> find(const std::string& word) const;
  // The same for what a user typed. Throws a UserError if there is none.
  std::int64_t require(const std::string& typed) const;
  std::int64_t add(const std::string& word, std::span<const float> vector);

  std::int64_t letter(std::int64_t id) const;  // 'a' to 'z' or kOtherLetter
  std::int64_t length(std::int64_t id) const;  // in characters

 private:
  std::int32_t dim_;
  std::vector<std::string> words_;
  std::vector<float> vectors_;
  std::unordered_map<std::string, std::int64_t> ids_;
};

// The letter that a user typed: a to z in either case, or #. Throws a UserError.
std::int64_t parse_letter(const std::string& typed);
