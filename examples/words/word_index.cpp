// How an index of words is made.
#include "word_index.h"

#include <algorithm>
#include <cmath>
#include <utility>

// As many lists as rows in a list: ranking the centroids then costs as much as scanning a list.
WordIndex::WordIndex(Words&& given)
    : words(std::move(given)),
      lists(make_lists(words, std::lround(std::sqrt(static_cast<double>(words.size()))))),
      nprobe(std::max(1, lists.count() / 10)),
      index(words.dim()) {
  std::vector<std::int64_t> ids = first_ids(words.size());
  std::ranges::sort(ids, {}, [this](auto id) { return std::pair(words.letter(id), id); });
  std::int32_t row = 0;
  for (const std::int64_t id : ids) {
    const std::int64_t letter = words.letter(id);
    if (partitions.empty() || partitions.back().key != letter)
      partitions.push_back({letter, row, 0});
    ++partitions.back().size;
    ++row;
  }
  index.build(words.vectors(ids), ids, partitions);
  describe(ids);
  index.set_ivf(kIvfKey, nprobe, lists.centroids, lists.ids, lists.offsets);
}

void WordIndex::set_nprobe(std::int32_t lists_scanned) {
  nprobe = std::min(lists_scanned, lists.count());
  index.set_ivf_nprobe(kIvfKey, nprobe);
}

std::int64_t WordIndex::add(const std::string& word, std::span<const float> vector) {
  const std::int64_t id = words.add(word, vector);
  describe({id});
  return id;
}

void WordIndex::describe(const std::vector<std::int64_t>& ids) {
  std::vector<std::int64_t> letters;
  std::vector<std::int64_t> lengths;
  for (const std::int64_t id : ids) {
    letters.push_back(words.letter(id));
    lengths.push_back(words.length(id));
  }
  index.set_rowmeta(ids, letters, lengths, 1);
}
