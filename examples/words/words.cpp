#include "words.h"

#include <bit>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

std::uint32_t number_at(const std::string& bytes, std::size_t at, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = size; i-- > 0;) {
    number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return number;
}

// The bits of a half are those of a float with fewer, and an exponent that begins 112 higher.
float half_to_float(std::uint32_t half) {
  return std::bit_cast<float>((half & 0x8000u) << 16 | (half & 0x7FFFu) << 13) * 0x1p112f;
}

}  // namespace

Words read_words(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  if (!file.is_open() || !(content << file.rdbuf())) {
    throw std::runtime_error(path + " cannot be read");
  }
  const std::string bytes = content.str();
  const bool begins = bytes.size() > 32 && bytes.starts_with("QXWORDS\n");
  if (!begins || number_at(bytes, 8, 4) != 1) {
    throw std::runtime_error(path + " is no file of words");
  }
  Words read;
  read.dim = static_cast<std::int32_t>(number_at(bytes, 16, 4));
  const std::size_t first = 32 + number_at(bytes, 20, 4);
  std::istringstream lines(bytes.substr(32, first - 32));
  for (std::string word; std::getline(lines, word);) read.words.push_back(word);
  if (bytes.size() != first + 2 * read.words.size() * number_at(bytes, 16, 4)) {
    throw std::runtime_error(path + " is not whole");
  }
  for (std::size_t at = first; at < bytes.size(); at += 2) {
    read.vectors.push_back(half_to_float(number_at(bytes, at, 2)));
  }
  return read;
}
