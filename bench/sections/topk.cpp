// The result buffer: vectors of one component, so that little but the buffer is left to measure.
#include <algorithm>
#include <vector>

#include "harness/data.h"
#include "limits/read.h"
#include "peers/plain_topk.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000000;
constexpr float kQuery = 1.0f;

struct Slots {
  explicit Slots(std::int64_t k)
      : ids(static_cast<std::size_t>(k)), scores(static_cast<std::size_t>(k)) {}
  Ids ids;
  std::vector<float> scores;
};

void run_case(const Settings& settings, Results& results, const char* scores, const Floats& values,
              std::int64_t k) {
  const Ids ids = ascending_ids(kRows);
  const Index index = built_index(values.data(), ids, 1);
  Slots ours(k);
  Slots plain(k);
  const auto search = [&] {
    return qx_index_search_full(index.get(), &kQuery, static_cast<int32_t>(k), ours.ids.data(),
                                ours.scores.data());
  };
  const auto search_plainly = [&] {
    plain_topk(values.data(), ids.data(), kRows, kQuery, k, plain.ids.data(), plain.scores.data());
    consume(plain);
  };
  require(search() == k, "all slots are filled");
  search_plainly();
  require(ours.ids == plain.ids && ours.scores == plain.scores, "both keep the same results");

  std::vector<Contestant> contestants = {
      {"qx_runtime", Role::kEngine, [&] { consume(search()); }},
      {"plain shifting insertion", Role::kBaseline, search_plainly}};
  add_read_limits(contestants, values.data(), kRows * sizeof(float));
  compare(settings, results, {"topk", {{"scores", scores}, {"k", k}}, kRows * 4, kRows},
          contestants);
}

}  // namespace

void run_topk(const Settings& settings, Results& results) {
  Random random(8);
  Floats values = random_floats(kRows, random);
  for (const std::int64_t k : {10, 100, 1000, 10000}) {
    run_case(settings, results, "random", values, k);
  }
  // Every row enters: the most work that a buffer can have.
  std::sort(values.data(), values.data() + kRows);
  for (const std::int64_t k : {10, 1000}) run_case(settings, results, "ascending", values, k);
}

}  // namespace bench
