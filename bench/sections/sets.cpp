// The exact search of named sets of rows: vectors of words, and a million rows of 960.
#include <cstdio>
#include <filesystem>
#include <span>
#include <utility>

#include "harness/unit_words.h"
#include "limits/limits.h"
#include "peers/peers.h"
#include "sections/rows.h"
#include "sections/sections.h"

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

// All words of a file, asked for what is near to some of them.
void run_words(Run& run, const char* name, const char* path) {
  if (!std::filesystem::exists(path)) {
    std::fprintf(stderr, "  %s are left out: there is no %s\n", name, path);
    return;
  }
  UnitWords words = read_unit_words(path);
  Queries queries(words.dim, std::move(words.asked));
  const Index index = built_index(words.vectors.data(), ascending_ids(words.rows), words.dim);
  const Matrix matrix{base_vectors(index), words.rows, words.dim};
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
