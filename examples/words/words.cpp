// Nothing in a file is trusted: every count is checked against its size.
#include "words.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <functional>
#include <numeric>
#include <sstream>

#include "text.h"

namespace {

void check(bool condition, const std::string& reason) {
  if (!condition) throw UserError(reason);
}

// The bits of a half are those of a float with fewer, and an exponent that begins 112 higher.
float half_to_float(std::uint32_t half) {
  if ((half & 0x7C00u) == 0x7C00u) throw UserError("it holds a number that is not finite");
  return std::bit_cast<float>((half & 0x8000u) << 16 | (half & 0x7FFFu) << 13) * 0x1p112f;
}

// A file as data/README.md describes it.
struct WordFile {
  explicit WordFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    check(file.is_open() && content << file.rdbuf(), "it cannot be read");
    bytes = content.str();
    check(bytes.size() >= 32 && bytes.starts_with("QXWORDS\n"), "it does not begin like one");
    check(number_at(8, 4) == 1, "it has another version than 1");
    const std::uint64_t count = number_at(12, 4);
    dim = static_cast<std::int32_t>(number_at(16, 4));
    vectors = 32 + number_at(20, 4);
    check(dim >= 1 && dim <= 4096, "its dimension is absurd");
    check(bytes.size() == vectors + 2 * count * static_cast<std::uint64_t>(dim),
          "it has not the bytes that its counts need");
    check(crc32(std::string_view(bytes).substr(32)) == number_at(24, 4),
          "its checksum does not match");
    check(vectors == 32 || bytes[vectors - 1] == '\n', "its last word has no end");
    std::istringstream lines(bytes.substr(32, vectors - 32));
    for (std::string word; std::getline(lines, word);) words.push_back(word);
    check(words.size() == count, "its words are not as many as it says");
  }

  std::uint32_t number_at(std::size_t at, std::size_t size) const {
    std::uint32_t number = 0;
    for (std::size_t i = size; i-- > 0;) {
      number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
    }
    return number;
  }

  // The checksum of zip and PNG files.
  static std::uint32_t crc32(std::string_view text) {
    std::uint32_t sum = ~0u;
    for (const char byte : text) {
      sum ^= static_cast<unsigned char>(byte);
      for (int bit = 0; bit < 8; ++bit) sum = (sum >> 1) ^ ((sum & 1u) * 0xEDB88320u);
    }
    return ~sum;
  }

  std::string bytes;
  std::int32_t dim;
  std::size_t vectors;  // where they begin
  std::vector<std::string> words;
};

}  // namespace

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

Words::Words(const std::string& path) try {
  const WordFile file(path);
  dim_ = file.dim;
  std::vector<float> vector(static_cast<std::size_t>(dim_));
  for (std::size_t i = 0; i < file.words.size(); ++i) {
    const std::string& word = file.words[i];
    check(is_word(word), "the word " + in_quotes(word) + " is not plain text");
    check(!ids_.contains(word), "the word " + in_quotes(word) + " appears twice");
    for (std::size_t j = 0; j < vector.size(); ++j) {
      vector[j] = half_to_float(file.number_at(file.vectors + 2 * (i * vector.size() + j), 2));
    }
    check(normalise(vector), "the word " + in_quotes(word) + " has no vector");
    add(word, vector);
  }
  check(!words_.empty(), "it has no words");
} catch (const UserError& problem) {
  throw UserError(in_quotes(path, kLongestPath) + " is not a word file: " + problem.what());
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
  if (const auto id = find(typed)) return *id;
  if (const auto id = find(lower_case(typed))) return *id;
  throw UserError(in_quotes(typed) + " is not among the " + grouped(size()) + " words");
}

std::int64_t Words::add(const std::string& word, std::span<const float> vector) {
  ids_.emplace(word, size());
  words_.push_back(word);
  vectors_.insert(vectors_.end(), vector.begin(), vector.end());
  return size() - 1;
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
