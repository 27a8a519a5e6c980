// Words and their vectors, as a file in the format of data/README.md has them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Words {
  std::int32_t dim = 0;
  std::vector<std::string> words;  // the most frequent first
  std::vector<float> vectors;
};

// Throws a std::runtime_error if the file cannot be read, or is not whole.
Words read_words(const std::string& path);
