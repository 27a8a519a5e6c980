#include "word_search.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace {

// Identifies the index in its statistics; the engine does not interpret it.
constexpr std::uint32_t kUserTag = 2024;
// A tenth of the lists: with 20,000 words it finds 19 of 20 neighbours.
constexpr std::int32_t kListsPerProbe = 10;

}  // namespace

WordSearch::WordSearch(WordVectors&& data, CallLog& log)
    : dimension_(data.dimension),
      vocabulary_(std::move(data.words)),
      vectors_(std::move(data.values)),
      index_(dimension_, kUserTag, log) {}

std::span<const float> WordSearch::vector(std::int64_t id) const {
  if (!vocabulary_.contains(id)) throw std::logic_error("an id without a word");
  const std::size_t dimension = static_cast<std::size_t>(dimension_);
  return std::span<const float>(vectors_).subspan(static_cast<std::size_t>(id) * dimension,
                                                  dimension);
}

void WordSearch::seal() {
  Rows rows;
  rows.ids.resize(static_cast<std::size_t>(vocabulary_.size()));
  std::iota(rows.ids.begin(), rows.ids.end(), std::int64_t{0});
  // Stable: within a letter the frequent words stay first.
  std::stable_sort(rows.ids.begin(), rows.ids.end(), [this](std::int64_t a, std::int64_t b) {
    return vocabulary_.letter_key(a) < vocabulary_.letter_key(b);
  });
  rows.vectors.reserve(vectors_.size());
  for (std::size_t i = 0; i < rows.ids.size(); ++i) {
    const std::span<const float> source = vector(rows.ids[i]);
    rows.vectors.insert(rows.vectors.end(), source.begin(), source.end());
    const std::int64_t key = vocabulary_.letter_key(rows.ids[i]);
    if (partitions_.keys.empty() || partitions_.keys.back() != key) {
      partitions_.keys.push_back(key);
      partitions_.starts.push_back(static_cast<std::int32_t>(i));
      partitions_.sizes.push_back(0);
    }
    ++partitions_.sizes.back();
  }
  if (!index_.build(rows, partitions_)) throw std::logic_error("the engine refuses the words");
}

Metadata WordSearch::metadata_of(std::span<const std::int64_t> ids) const {
  Metadata metadata;
  metadata.columns = kColumnCount;
  for (const std::int64_t id : ids) {
    metadata.labels.push_back(vocabulary_.letter_key(id));
    // In the order of kLengthColumn and kBandColumn.
    metadata.values.push_back(vocabulary_.length(id));
    metadata.values.push_back(vocabulary_.band(id));
  }
  return metadata;
}

void WordSearch::attach_metadata() {
  std::vector<std::int64_t> ids(static_cast<std::size_t>(vocabulary_.size()));
  std::iota(ids.begin(), ids.end(), std::int64_t{0});
  index_.set_metadata(ids, metadata_of(ids));
}

void WordSearch::attach_ivf(std::int32_t probes) {
  const std::int64_t rows = vocabulary_.original_size();
  lists_ = cluster(vectors_, dimension_, rows, suitable_list_count(rows), clustering_log_);
  const std::int32_t suitable = std::max(1, lists_.count() / kListsPerProbe);
  probes_ = std::min(probes == 0 ? suitable : probes, lists_.count());
  index_.set_ivf(kIvfKey, probes_, lists_);
}

void WordSearch::set_probes(std::int32_t probes) {
  probes_ = std::min(probes, lists_.count());
  index_.set_ivf_probes(kIvfKey, probes_);
}

bool WordSearch::is_visible(std::int64_t id) {
  return !index_.search_current(std::span(&id, 1), vector(id), 1).empty();
}

std::uint64_t WordSearch::erase(std::int64_t id) { return index_.erase(std::span(&id, 1)); }

std::uint64_t WordSearch::insert(std::int64_t id) {
  const std::span<const float> source = vector(id);
  return index_.insert({{source.begin(), source.end()}, {id}});
}

std::int64_t WordSearch::insert_new(const std::string& word, std::span<const float> vector) {
  // The vector may be one of vectors_, which moves when it grows.
  const std::vector<float> copy(vector.begin(), vector.end());
  const std::int64_t id = vocabulary_.add(word);
  vectors_.insert(vectors_.end(), copy.begin(), copy.end());
  added_ids_.push_back(id);
  index_.set_metadata(std::span(&id, 1), metadata_of(std::span(&id, 1)));
  insert(id);
  return id;
}
