// The host: the words, their vectors and one engine index over them. It decides what the engine
// leaves to its host: ids, partitions, metadata, IVF lists, and vectors of length 1.
#ifndef WORDS_WORD_SEARCH_H
#define WORDS_WORD_SEARCH_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "call_log.h"
#include "clustering.h"
#include "index.h"
#include "vocabulary.h"
#include "word_vectors.h"

// The only IVF structure of the index.
constexpr std::int64_t kIvfKey = 0;

class WordSearch {
 public:
  // The log outlives this object. Nothing is built yet.
  WordSearch(WordVectors&& data, CallLog& log);

  // Seals the words as the base: rows sorted by first letter, one partition for each letter.
  void seal();
  // Attaches a label (the letter key) and two columns (length and frequency band) to every word.
  void attach_metadata();
  // Computes centroids and lists, attaches them, and sets the probe count: the given one, or the
  // suitable one if it is 0. The engine calls of the clustering go to clustering_log().
  void attach_ivf(std::int32_t probes);

  std::int32_t dimension() const { return dimension_; }
  std::span<const float> vector(std::int64_t id) const;
  const Vocabulary& vocabulary() const { return vocabulary_; }
  const IvfLists& lists() const { return lists_; }
  std::int32_t probes() const { return probes_; }
  const CallLog& clustering_log() const { return clustering_log_; }
  const Partitions& partitions() const { return partitions_; }
  Index& index() { return index_; }
  CallLog& log() const { return index_.log(); }

  // Changes the number of lists that an IVF search scans, at most all of them.
  void set_probes(std::int32_t probes);

  // True if current reads see the id: it has a row and is not deleted.
  bool is_visible(std::int64_t id);
  // Returns the snapshot after the call.
  std::uint64_t erase(std::int64_t id);
  // Inserts a known word with its own vector. Returns the snapshot after the call.
  std::uint64_t insert(std::int64_t id);
  // Inserts a word that is not known yet, with its metadata. Returns its id.
  std::int64_t insert_new(const std::string& word, std::span<const float> vector);

  // The ids that stand in the delta without a base row, in the order of insertion.
  const std::vector<std::int64_t>& added_ids() const { return added_ids_; }

 private:
  Metadata metadata_of(std::span<const std::int64_t> ids) const;

  std::int32_t dimension_;
  Vocabulary vocabulary_;
  std::vector<float> vectors_;
  Index index_;
  CallLog clustering_log_;
  Partitions partitions_;
  IvfLists lists_;
  std::int32_t probes_ = 0;
  std::vector<std::int64_t> added_ids_;
};

#endif
