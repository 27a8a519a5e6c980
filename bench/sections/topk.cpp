// The result buffer: vectors of one component, so that little but the buffer is left to measure.
#include <algorithm>

#include "limits/limits.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;

// A result buffer by plain shifting insertion, from best to worst.
void plain_topk(const Floats& values, const Ids& ids, float query, Slots& out) {
  std::fill(out.ids.begin(), out.ids.end(), QX_EMPTY_ID);
  std::fill(out.scores.begin(), out.scores.end(), QX_EMPTY_SCORE);
  std::int64_t* const out_ids = out.ids.data();
  float* const out_scores = out.scores.data();
  const std::int64_t last = out.k - 1;
  for (std::int64_t r = 0; r < kRows; ++r) {
    const float score = values.data()[r] * query;
    if (!(score > out_scores[last])) continue;
    std::int64_t slot = last;
    for (; slot > 0 && out_scores[slot - 1] < score; --slot) {
      out_scores[slot] = out_scores[slot - 1];
      out_ids[slot] = out_ids[slot - 1];
    }
    out_scores[slot] = score;
    out_ids[slot] = ids[static_cast<std::size_t>(r)];
  }
}

void run_case(Run& run, const char* scores, const Floats& values, std::int64_t k) {
  const Ids ids = ascending_ids(kRows);
  const Index index = built_index(values.data(), ids, 1);
  float query = 1.0f;
  consume(query);  // from here on its value is not known, as that of a host's query
  Slots ours(k);
  Slots plain(k);
  const auto search = [&] { return ours.search_full(index.get(), &query); };
  const auto search_plainly = [&] {
    plain_topk(values, ids, query, plain);
    consume(plain);
  };
  require(search() == k, "all slots are filled");
  search_plainly();
  require(ours.ids == plain.ids && ours.scores == plain.scores, "both keep the same results");

  Contestants contestants = {{"qx_runtime", Role::kEngine, search},
                             {"plain shifting insertion", Role::kBaseline, search_plainly}};
  add_read_limits(contestants, values.data(), kRows * 4);
  run.compare({{"scores", scores}, {"k", k}}, kRows * 4, kRows, contestants);
}

void run_topk(Run& run) {
  Random random(8);
  Floats values = random_floats(kRows, random);
  for (const std::int64_t k : {10, 100, 1000, 10000}) run_case(run, "random", values, k);
  // Every row enters: the most work that a buffer can have.
  std::sort(values.data(), values.data() + kRows);
  for (const std::int64_t k : {10, 1000}) run_case(run, "ascending", values, k);
}

}  // namespace

const Section kTopk = {"topk", "the result buffer, against plain shifting insertion", run_topk};

}  // namespace bench
