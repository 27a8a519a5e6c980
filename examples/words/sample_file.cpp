// Reads the sample file, whose format data/README.md describes byte by byte. Nothing in the file is
// trusted: every count is checked against the size of the file before anything is allocated.
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <string_view>

#include "text.h"
#include "word_vectors.h"

namespace {

constexpr std::string_view kMagic = "QXWORDS\n";
constexpr std::size_t kHeaderBytes = 32;
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHalfBytes = 2;
// A file of a hundred times the sample's size would still be well below this.
constexpr std::int64_t kLargestFile = std::int64_t{1} << 30;

struct Header {
  std::uint32_t version;
  std::uint32_t words;
  std::uint32_t dimension;
  std::uint32_t text_bytes;
  std::uint32_t checksum;
};

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw UserError(in_quotes(path, kLongestPathShown) + " is not a word file: " + reason);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::int64_t size = file ? static_cast<std::int64_t>(file.tellg()) : -1;
  if (size < 0) throw UserError("cannot read " + in_quotes(path, kLongestPathShown));
  if (size > kLargestFile) fail(path, "it is too large");
  std::string content(static_cast<std::size_t>(size), '\0');
  file.seekg(0);
  if (!file.read(content.data(), static_cast<std::streamsize>(size))) {
    throw UserError("cannot read " + in_quotes(path, kLongestPathShown));
  }
  return content;
}

std::uint32_t read_little_endian(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = size; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return number;
}

// The checksum of zip and PNG files: polynomial 0xEDB88320, reflected, inverted at both ends.
std::uint32_t crc32(std::string_view bytes) {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t entry = i;
    for (int bit = 0; bit < 8; ++bit) entry = (entry >> 1) ^ ((entry & 1u) * 0xEDB88320u);
    table[i] = entry;
  }
  std::uint32_t sum = 0xFFFFFFFFu;
  for (const char byte : bytes) {
    sum = (sum >> 8) ^ table[(sum ^ static_cast<unsigned char>(byte)) & 0xFFu];
  }
  return ~sum;
}

float half_to_float(std::uint32_t half) {
  const std::uint32_t exponent = half >> 10 & 0x1Fu;
  const std::uint32_t fraction = half & 0x3FFu;
  float magnitude = 0;
  if (exponent == 0x1F) {
    magnitude = std::numeric_limits<float>::infinity();
  } else if (exponent == 0) {
    magnitude = std::ldexp(static_cast<float>(fraction), -24);
  } else {
    magnitude = std::ldexp(static_cast<float>(fraction | 0x400u), static_cast<int>(exponent) - 25);
  }
  return (half & 0x8000u) != 0 ? -magnitude : magnitude;
}

Header read_header(const std::string& path, std::string_view content) {
  if (content.size() < kHeaderBytes || !content.starts_with(kMagic)) {
    fail(path, "it does not begin like one");
  }
  const Header header{read_little_endian(content, 8, 4), read_little_endian(content, 12, 4),
                      read_little_endian(content, 16, 4), read_little_endian(content, 20, 4),
                      read_little_endian(content, 24, 4)};
  if (header.version != kVersion) {
    fail(path, "it has version " + std::to_string(header.version) + ", not 1");
  }
  if (header.dimension < 1 || header.dimension > static_cast<std::uint32_t>(kMaxDimension)) {
    fail(path, "it has an absurd dimension, " + std::to_string(header.dimension));
  }
  return header;
}

// The sizes are 64-bit: three 32-bit counts cannot overflow them once the dimension is checked.
void check_size(const std::string& path, std::string_view content, const Header& header) {
  const std::uint64_t vectors = std::uint64_t{header.words} * header.dimension * kHalfBytes;
  const std::uint64_t expected = kHeaderBytes + header.text_bytes + vectors;
  if (content.size() != expected) {
    fail(path, "it has " + std::to_string(content.size()) + " bytes where its counts need " +
                   std::to_string(expected));
  }
  if (crc32(content.substr(kHeaderBytes)) != header.checksum) {
    fail(path, "its checksum does not match");
  }
}

std::vector<std::string> split_words(const std::string& path, std::string_view text,
                                     std::size_t count) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || words.size() == count) break;
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  if (words.size() != count || !text.empty()) fail(path, "its words do not match its counts");
  return words;
}

}  // namespace

WordVectors load_sample(const std::string& path) {
  const std::string content = read_file(path);
  const std::string_view bytes = content;
  const Header header = read_header(path, bytes);
  check_size(path, bytes, header);
  WordVectors data;
  data.dimension = static_cast<std::int32_t>(header.dimension);
  data.words = split_words(path, bytes.substr(kHeaderBytes, header.text_bytes), header.words);
  const std::size_t numbers = std::size_t{header.words} * header.dimension;
  data.values.resize(numbers);
  for (std::size_t i = 0; i < numbers; ++i) {
    const std::size_t at = kHeaderBytes + header.text_bytes + i * kHalfBytes;
    data.values[i] = half_to_float(read_little_endian(bytes, at, kHalfBytes));
    if (!std::isfinite(data.values[i])) fail(path, "it holds a number that is not finite");
  }
  return data;
}
