// The host: words and an index of them. It decides what the library leaves to its host: ids,
// partitions, metadata, IVF lists, and vectors of length 1, so that scores are cosines.
#pragma once

#include <cstdint>
#include <qx_runtime.hpp>
#include <span>
#include <string>
#include <vector>

#include "words.h"

constexpr std::int64_t kIvfKey = 0;

// List c is ids[offsets[c]] up to, but not including, ids[offsets[c + 1]].
struct Lists {
  std::vector<float> centroids;
  std::vector<std::int64_t> ids;
  std::vector<std::int32_t> offsets;

  std::int32_t count() const { return static_cast<std::int32_t>(std::ssize(offsets) - 1); }
};

struct WordIndex {
  // Loads and attaches everything. Searches scan a tenth of the lists.
  explicit WordIndex(Words&& given);

  void set_nprobe(std::int32_t lists_scanned);
  std::string probes() const {
    return std::to_string(nprobe) + " of " + std::to_string(lists.count()) + " IVF lists";
  }
  void erase(std::int64_t id) { index.erase(std::span(&id, 1)); }
  void insert(std::int64_t id) { index.insert(words.vector(id), std::span(&id, 1)); }
  // Gives a new word metadata, and an id to insert.
  std::int64_t add(const std::string& word, std::span<const float> vector);
  // Gives ids their letters as labels, and their lengths as column 0.
  void describe(const std::vector<std::int64_t>& ids);

  Words words;
  std::vector<qx::Partition> partitions;  // one for each letter
  Lists lists;
  std::int32_t nprobe;
  qx::Index index;
};
