// The words and their vectors as they come from a file, before any index exists.
#ifndef WORDS_WORD_VECTORS_H
#define WORDS_WORD_VECTORS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Words from the most frequent to the rarest, all different; values holds dimension floats for
// each, row-major, and every vector has length 1: an inner product of two of them is their cosine.
struct WordVectors {
  std::int32_t dimension = 0;
  std::vector<std::string> words;
  std::vector<float> values;
  // Words of the file that are left out, because they have no vector or one of no length.
  std::int64_t skipped = 0;
};

// Larger dimensions are taken for damage.
constexpr std::int32_t kMaxDimension = 4096;

// Reads a sample file (data/README.md) or the package's JSON, told apart by their first bytes.
// Throws UserError if the file cannot be read or is neither, or is damaged.
WordVectors load_words(const std::string& path);

// The two readers. They leave the vectors at the length that the file gives them.
WordVectors load_sample(const std::string& path);
WordVectors load_json(const std::string& path);

// Scales the vector to length 1. Returns false, and changes nothing, if it has no length.
bool normalise(float* vector, std::size_t dimension);

#endif
