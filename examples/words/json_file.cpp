// Reads the package's JSON, about 300 MB of it, as a stream of events: at no time does more than
// the words and their floats stand in memory. The shape that it expects:
//
//   {"l2NormIndex": 100, "wordIndex": 101, "dimensions": 100, ..., "words": ["the", ...],
//    "vectors": {"the": [100 numbers, its length, its place among the words], ...}, ...}
//
// The dimensions stand before the words, the words before the vectors; other members are skipped.
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <istream>
#include <nlohmann/json.hpp>
#include <streambuf>
#include <utility>

#include "progress.h"
#include "text.h"
#include "word_vectors.h"

namespace {

// A file as a stream buffer that reports how far it has been read.
class ProgressBuffer : public std::streambuf {
 public:
  ProgressBuffer(std::ifstream& file, std::int64_t size)
      : file_(file), progress_("Reading the words", size) {}

 protected:
  int_type underflow() override {
    file_.read(chunk_.data(), static_cast<std::streamsize>(chunk_.size()));
    const std::streamsize size = file_.gcount();
    if (size == 0) return traits_type::eof();
    done_ += static_cast<std::int64_t>(size);
    progress_.update(done_);
    setg(chunk_.data(), chunk_.data(), chunk_.data() + size);
    return traits_type::to_int_type(chunk_.front());
  }

 private:
  std::ifstream& file_;
  Progress progress_;
  std::int64_t done_ = 0;
  std::vector<char> chunk_ = std::vector<char>(std::size_t{1} << 20);
};

// Receives the events and fills the word vectors. Anything unexpected throws UserError.
class PackageReader {
 public:
  explicit PackageReader(std::string path) : path_(std::move(path)) {}

  bool null() { return other_value(); }
  bool boolean(bool) { return other_value(); }
  bool string(std::string& text);
  bool binary(nlohmann::json::binary_t&) { return other_value(); }
  bool number_integer(std::int64_t number) { return any_number(static_cast<double>(number)); }
  bool number_unsigned(std::uint64_t number) { return any_number(static_cast<double>(number)); }
  bool number_float(double number, const std::string&) { return any_number(number); }
  bool start_object(std::size_t);
  bool key(std::string& name);
  bool end_object();
  bool start_array(std::size_t);
  bool end_array();
  bool parse_error(std::size_t position, const std::string& token,
                   const nlohmann::json::exception& problem);

  WordVectors finish();

 private:
  // Where in the file the reader stands.
  enum class Place { kOutside, kMember, kWords, kVectors, kRow };

  [[noreturn]] void fail(const std::string& reason) const;
  bool other_value();
  bool any_number(double number);
  void begin_vectors();
  void end_row();
  void set_dimension(double number);

  std::string path_;
  Place place_ = Place::kOutside;
  std::size_t skipped_depth_ = 0;  // open brackets of a member that is skipped
  std::string member_;             // the member of the outermost object
  std::string row_word_;
  std::vector<double> row_;
  std::vector<bool> has_vector_;
  WordVectors data_;
};

void PackageReader::fail(const std::string& reason) const {
  throw UserError(in_quotes(path_, kLongestPathShown) + " is not the words' JSON: " + reason);
}

// A value where only a skipped member may have one.
bool PackageReader::other_value() {
  if (place_ != Place::kMember || member_ == "words" || member_ == "vectors") {
    fail("something stands where words or vectors should");
  }
  return true;
}

bool PackageReader::string(std::string& text) {
  if (place_ != Place::kWords) return other_value();
  data_.words.push_back(std::move(text));
  return true;
}

bool PackageReader::any_number(double number) {
  if (place_ == Place::kRow) {
    if (row_.size() == static_cast<std::size_t>(data_.dimension) + 2) {
      fail("the vector of " + in_quotes(row_word_) + " has too many numbers");
    }
    row_.push_back(number);
    return true;
  }
  if (place_ == Place::kMember && skipped_depth_ == 0 && member_ == "dimensions") {
    set_dimension(number);
    return true;
  }
  return other_value();
}

void PackageReader::set_dimension(double number) {
  if (!(number >= 1 && number <= kMaxDimension) || number != std::floor(number)) {
    fail("it has absurd dimensions");
  }
  if (place_ != Place::kMember || !data_.words.empty()) fail("its dimensions come too late");
  data_.dimension = static_cast<std::int32_t>(number);
}

bool PackageReader::start_object(std::size_t) {
  if (place_ == Place::kOutside) {
    place_ = Place::kMember;
    return true;
  }
  if (place_ == Place::kMember && skipped_depth_ == 0 && member_ == "vectors") {
    begin_vectors();
    return true;
  }
  other_value();
  ++skipped_depth_;
  return true;
}

void PackageReader::begin_vectors() {
  if (data_.dimension == 0 || data_.words.empty() || !has_vector_.empty()) {
    fail("its dimensions, words and vectors do not follow each other");
  }
  place_ = Place::kVectors;
  has_vector_.resize(data_.words.size());
  data_.values.resize(data_.words.size() * static_cast<std::size_t>(data_.dimension));
}

bool PackageReader::key(std::string& name) {
  if (place_ == Place::kVectors) {
    row_word_ = std::move(name);
  } else if (skipped_depth_ == 0) {
    member_ = std::move(name);
  }
  return true;
}

bool PackageReader::end_object() {
  if (place_ == Place::kVectors) {
    place_ = Place::kMember;
    member_.clear();
  } else if (skipped_depth_ > 0) {
    --skipped_depth_;
  } else {
    place_ = Place::kOutside;
  }
  return true;
}

bool PackageReader::start_array(std::size_t) {
  if (place_ == Place::kVectors) {
    place_ = Place::kRow;
    row_.clear();
    return true;
  }
  if (place_ == Place::kMember && skipped_depth_ == 0 && member_ == "words") {
    if (data_.dimension == 0 || !data_.words.empty()) {
      fail("its dimensions and words do not follow each other");
    }
    place_ = Place::kWords;
    return true;
  }
  other_value();
  ++skipped_depth_;
  return true;
}

bool PackageReader::end_array() {
  if (place_ == Place::kRow) {
    end_row();
    place_ = Place::kVectors;
  } else if (place_ == Place::kWords) {
    place_ = Place::kMember;
    member_.clear();
  } else {
    --skipped_depth_;
  }
  return true;
}

// The last number of a row is the word's place, which must name the word that owns the row.
void PackageReader::end_row() {
  const std::size_t dimension = static_cast<std::size_t>(data_.dimension);
  if (row_.size() != dimension + 2) {
    fail("the vector of " + in_quotes(row_word_) + " does not have " + std::to_string(dimension) +
         " + 2 numbers");
  }
  const double place = row_.back();
  const bool inside = place >= 0 && place < static_cast<double>(data_.words.size());
  const std::size_t at = inside ? static_cast<std::size_t>(place) : 0;
  const bool own = inside && place == std::floor(place) && data_.words[at] == row_word_;
  if (!own || has_vector_[at]) {
    fail("the vector of " + in_quotes(row_word_) + " names another place than the word has");
  }
  has_vector_[at] = true;
  for (std::size_t i = 0; i < dimension; ++i) {
    data_.values[at * dimension + i] = static_cast<float>(row_[i]);
    if (!std::isfinite(data_.values[at * dimension + i])) {
      fail("the vector of " + in_quotes(row_word_) + " is too large");
    }
  }
}

bool PackageReader::parse_error(std::size_t position, const std::string&,
                                const nlohmann::json::exception&) {
  fail("it is damaged or incomplete at byte " + std::to_string(position));
}

// A word without a vector keeps zeros here, and so is left out when the vectors are normalised.
WordVectors PackageReader::finish() {
  if (has_vector_.empty()) fail("it has no vectors");
  return std::move(data_);
}

}  // namespace

WordVectors load_json(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::int64_t size = file ? static_cast<std::int64_t>(file.tellg()) : -1;
  if (size < 0) throw UserError("cannot read " + in_quotes(path, kLongestPathShown));
  file.seekg(0);
  ProgressBuffer buffer(file, size);
  std::istream stream(&buffer);
  PackageReader reader(path);
  nlohmann::json::sax_parse(stream, &reader);
  return reader.finish();
}
