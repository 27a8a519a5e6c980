// Reads files of words. Nothing in them is trusted: every count is checked against the size of the
// file before anything is allocated.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <fstream>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <utility>

#include "progress.h"
#include "text.h"
#include "words.h"

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t kLargestDim = 4096;

void require(bool condition, const std::string& reason) {
  if (!condition) throw UserError(reason);
}

std::uint32_t number_at(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = size; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return number;
}

// The checksum of zip and PNG files.
std::uint32_t crc32(std::string_view bytes) {
  std::uint32_t sum = ~0u;
  for (const char byte : bytes) {
    sum ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) sum = (sum >> 1) ^ ((sum & 1u) * 0xEDB88320u);
  }
  return ~sum;
}

// The bits of a half are those of a float with fewer, and an exponent that begins 112 higher.
float half_to_float(std::uint32_t half) {
  if ((half & 0x7C00u) == 0x7C00u) throw UserError("it holds a number that is not finite");
  return std::bit_cast<float>((half & 0x8000u) << 16 | (half & 0x7FFFu) << 13) * 0x1p112f;
}

// The project's own format, as data/README.md describes it.
WordFile read_sample(std::string_view bytes) {
  require(bytes.size() >= 32 && bytes.starts_with("QXWORDS\n"), "it does not begin like one");
  require(number_at(bytes, 8, 4) == 1, "it has another version than 1");
  const std::uint64_t count = number_at(bytes, 12, 4);
  const std::uint64_t dim = number_at(bytes, 16, 4);
  const std::uint64_t text_bytes = number_at(bytes, 20, 4);
  require(dim >= 1 && dim <= kLargestDim, "its dimension is absurd");
  const std::uint64_t vectors = 32 + text_bytes;
  require(bytes.size() == vectors + 2 * count * dim, "it has not the bytes that its counts need");
  require(crc32(bytes.substr(32)) == number_at(bytes, 24, 4), "its checksum does not match");
  require(text_bytes == 0 || bytes[vectors - 1] == '\n', "its last word has no end");
  WordFile file{static_cast<std::int32_t>(dim), {}, std::vector<float>(count * dim)};
  std::istringstream lines{std::string(bytes.substr(32, text_bytes))};
  for (std::string word; std::getline(lines, word);) file.words.push_back(word);
  require(file.words.size() == count, "its words are not as many as it says");
  for (std::size_t i = 0; i < count * dim; ++i) {
    file.vectors[i] = half_to_float(number_at(bytes, vectors + 2 * i, 2));
  }
  return file;
}

// Takes the words out of the package's JSON, and each vector as soon as it is read, so that never
// all of it stands in memory. What it wants, in this order, among members that it skips:
//
//   {"dimensions": 100, "words": ["the", ...],
//    "vectors": {"the": [100 numbers, its length, its place among the words], ...}}
class PackageReader {
 public:
  explicit PackageReader(std::size_t file_size) : file_size_(file_size) {}

  // As nlohmann::json::parse calls it: depth 1 is that of members. Returns whether to keep a value.
  bool operator()(int depth, Json::parse_event_t event, const Json& value) {
    using Event = Json::parse_event_t;
    if (event == Event::object_start || event == Event::array_start) return true;
    if (event == Event::key) {
      (depth == 1 ? member_ : row_word_) = value;
      if (depth == 1) begin_member();
    } else if (depth == 1) {
      end_member(event == Event::object_end, value);
    } else if (depth == 2 && member_ == "vectors") {
      end_row(value.get<std::vector<double>>());
      return false;
    }
    return true;
  }

  WordFile finish() {
    require(members_ == 3, "it has no vectors");
    return std::move(file_);
  }

 private:
  void begin_member() {
    static constexpr std::array<std::string_view, 3> kWanted = {"dimensions", "words", "vectors"};
    const auto place = std::ranges::find(kWanted, member_) - kWanted.begin();
    if (place == std::ssize(kWanted)) return;
    require(place == members_++, "its members do not follow each other");
    if (member_ != "vectors") return;
    const std::size_t numbers = file_.words.size() * static_cast<std::size_t>(file_.dim);
    require(numbers > 0 && numbers <= file_size_ / 2, "it is too small for vectors of its words");
    has_vector_.resize(file_.words.size());
    file_.vectors.resize(numbers);
    progress_.emplace("Reading the words", file_.words.size());
  }

  void end_member(bool object, const Json& value) {
    if (member_ == "words") file_.words = value.get<std::vector<std::string>>();
    require(member_ != "vectors" || object, "its vectors are no object");
    if (member_ != "dimensions") return;
    const auto dim = value.get<double>();
    require(dim >= 1 && dim <= kLargestDim && dim == std::floor(dim), "its dimensions are absurd");
    file_.dim = static_cast<std::int32_t>(dim);
  }

  // The place must be that of the word that has the row. A word without a row keeps zeros.
  void end_row(const std::vector<double>& row) {
    const auto dim = static_cast<std::size_t>(file_.dim);
    const std::string name = "the vector of " + in_quotes(row_word_);
    require(row.size() == dim + 2, name + " does not have " + std::to_string(dim) + " + 2 numbers");
    const bool inside = row.back() >= 0 && row.back() < static_cast<double>(file_.words.size());
    const std::size_t place = inside ? static_cast<std::size_t>(row.back()) : 0;
    const bool own = static_cast<double>(place) == row.back() && file_.words[place] == row_word_;
    require(own && !has_vector_[place], name + " names another place than the word has");
    has_vector_[place] = true;
    const auto fits = [](double x) { return std::abs(x) <= std::numeric_limits<float>::max(); };
    require(std::ranges::all_of(row, fits), name + " is too large");
    const auto narrow = [](double x) { return static_cast<float>(x); };
    std::transform(row.begin(), row.end() - 2, &file_.vectors[place * dim], narrow);
    progress_->advance();
  }

  std::size_t file_size_;
  WordFile file_;
  std::string member_;
  std::ptrdiff_t members_ = 0;  // of those that it wants, so far
  std::string row_word_;
  std::vector<bool> has_vector_;
  std::optional<Progress> progress_;
};

WordFile read_package(std::ifstream& file, std::uint64_t size) try {
  PackageReader reader(size);
  const Json rest = Json::parse(file, std::ref(reader));
  return reader.finish();
} catch (const Json::parse_error& problem) {
  throw UserError("it is damaged at byte " + std::to_string(problem.byte));
} catch (const Json::exception&) {
  throw UserError("a value is too large, or of another kind than it must be");
}

}  // namespace

WordFile read_words(const std::string& path) {
  const std::string name = in_quotes(path, kLongestPath);
  std::ifstream file(path, std::ios::binary);
  const bool json = (file >> std::ws).peek() == '{';
  if (!file.is_open() || file.bad()) throw UserError("cannot read " + name);
  file.clear();
  const auto size = static_cast<std::uint64_t>(file.seekg(0, std::ios::end).tellg());
  file.seekg(0);
  try {
    if (json) return read_package(file, size);
    require(size <= std::uint64_t{1} << 30, "it is no plain file, or too large");
    std::string bytes(size, '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(size));
    return read_sample(bytes);
  } catch (const UserError& problem) {
    const std::string kind = json ? " is not the words' JSON: " : " is not a word file: ";
    throw UserError(name + kind + problem.what());
  }
}
