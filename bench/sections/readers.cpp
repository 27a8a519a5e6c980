// Two threads that search one handle at the same time, against one thread that makes all searches.
#include <string>
#include <thread>
#include <vector>

#include "harness/data.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int64_t kDim = 128;
constexpr std::int32_t kResults = 10;

struct Base {
  const char* name;
  std::int64_t rows;
  std::int64_t searches;  // of each thread, in a sample: long beside the start of a thread
};

// Makes searches, each of another query than the one before.
void search(const QxIndex* index, std::int64_t count) {
  Random random(14);
  Queries queries(kDim, random);
  Ids ids(kResults);
  std::vector<float> scores(kResults);
  for (std::int64_t i = 0; i < count; ++i) {
    consume(qx_index_search_full(index, queries.next(), kResults, ids.data(), scores.data()));
  }
}

}  // namespace

void run_readers(const Settings& settings, Results& results) {
  Random random(13);
  const Base bases[] = {{"0.5 MB", 1000, settings.pick(5000, 1000)},
                        {"500 MB", settings.pick(1000000, 200000), 1}};
  for (const Base& base : bases) {
    const Floats vectors = random_floats(base.rows * kDim, random);
    const Index index = built_index(vectors.data(), ascending_ids(base.rows), kDim);
    const std::vector<Contestant> contestants = {
        {"two threads", Role::kEngine,
         [&] {
           std::thread other([&] { search(index.get(), base.searches); });
           search(index.get(), base.searches);
           other.join();
         }},
        {"one thread", Role::kBaseline, [&] { search(index.get(), 2 * base.searches); }}};
    const Labels labels = {{"base", base.name}, {"rows", base.rows}, {"dim", kDim}};
    compare(settings, results, {"readers", labels, 0, 2 * base.searches}, contestants);
  }
}

}  // namespace bench
