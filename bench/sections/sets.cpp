// The exact search of named sets of rows: vectors of words, and a million rows of 960.
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <filesystem>
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

Floats floats_of(const std::vector<float>& values) {
  Floats floats(static_cast<std::int64_t>(values.size()));
  std::copy(values.begin(), values.end(), floats.data());
  return floats;
}

// All words of a file, of length 1, asked for what is near to eight of them.
void run_words(Run& run, const char* name, const char* path) {
  if (!std::filesystem::exists(path)) {
    std::fprintf(stderr, "  %s are left out: there is no %s\n", name, path);
    return;
  }
  constexpr std::int64_t kAsked = 8;
  const Words words(path);
  Queries queries(words.dim(), floats_of(words.vectors(words.spread(kAsked))));
  const Ids ids = first_ids(words.size());
  const Index index = built_index(words.vectors(ids).data(), ids, words.dim());
  const Matrix matrix{base_vectors(index), words.size(), words.dim()};
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
  std::setlocale(LC_CTYPE, "C.UTF-8");  // by which words are read
  run_words(run, "20,000 words", QX_WORDS);
  run_words(run, "all words", QX_ALL_WORDS);
  run_million(run);
}

}  // namespace

const Section kSets = {"sets", "exact search of words, and of a million rows of 960", run_sets};

}  // namespace bench
