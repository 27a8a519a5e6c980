// The exact search of named sets of rows: vectors of words, and a million rows of 960.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <span>
#include <utility>
#include <vector>

#include "limits/limits.h"
#include "peers/peers.h"
#include "sections/rows.h"
#include "sections/sections.h"
#include "words.h"

namespace bench {
namespace {

void run_set(Run& run, const char* name, const Index& index, const Matrix& matrix, Queries& queries,
             const Ids& ks, std::span<const Other> peers) {
  const std::int64_t bytes = matrix.rows * matrix.dim * std::int64_t{sizeof(float)};
  for (const std::int64_t k : ks) {
    Contestants contestants = with_and_without_codes(index, queries, k);
    run.use_chosen_kernel();
    Slots best(1);
    best.search_full(index.get(), queries.first());
    add_others(contestants, peers, matrix, queries, k, best.scores.front());
    add_read_limits(contestants, matrix.values, bytes);
    run.compare({{"rows", name}, {"dim", matrix.dim}, {"k", k}}, bytes, matrix.rows, contestants);
    run.use_chosen_kernel();
  }
}

// Words of length 1.
Floats unit_vectors(const Words& words) {
  const auto dim = static_cast<std::size_t>(words.dim);
  Floats units(std::ssize(words.vectors));
  for (std::size_t at = 0; at < words.vectors.size(); at += dim) {
    const std::span<const float> word = std::span(words.vectors).subspan(at, dim);
    const double length =
        std::sqrt(std::inner_product(word.begin(), word.end(), word.begin(), 0.0));
    std::ranges::transform(word, units.data() + at,
                           [&](float value) { return static_cast<float>(value / length); });
  }
  return units;
}

// All words of a file, of length 1, asked for what is near to eight of them.
void run_words(Run& run, const char* name, const char* path) {
  if (!std::filesystem::exists(path)) {
    std::fprintf(stderr, "  %s are left out: there is no %s\n", name, path);
    return;
  }
  constexpr std::int64_t kAsked = 8;
  const Words words = read_words(path);
  const std::int64_t count = std::ssize(words.words);
  const Floats vectors = unit_vectors(words);
  Floats asked(kAsked * words.dim);
  for (std::int64_t i = 0; i < kAsked; ++i) {
    std::copy_n(vectors.data() + i * count / kAsked * words.dim, words.dim,
                asked.data() + i * words.dim);
  }
  Queries queries(words.dim, std::move(asked));
  const Index index = built_index(vectors.data(), ascending_ids(count), words.dim);
  const Matrix matrix{base_vectors(index), count, words.dim};
  run_set(run, name, index, matrix, queries, {1, 10, 100, 1000}, kPeers);
}

// Faiss alone is asked, and has a copy: the source is released before.
void run_million(Run& run) {
  constexpr std::int64_t kDim = 960;
  const std::int64_t rows = run.pick(1000000, 50000);
  Random random(1);
  Queries queries(kDim, random);
  const Index index =
      built_index(rows_of(kNormal, rows * kDim * std::int64_t{sizeof(float)}, kDim).data(),
                  ascending_ids(rows), kDim);
  run_set(run, "normal", index, {base_vectors(index), rows, kDim}, queries, {kResults},
          std::span(kPeers).first(1));
}

void run_sets(Run& run) {
  run_words(run, "20,000 words", QX_WORDS);
  run_words(run, "all words", QX_ALL_WORDS);
  run_million(run);
}

}  // namespace

const Section kSets = {"sets", "exact search of words, and of a million rows of 960", run_sets};

}  // namespace bench
