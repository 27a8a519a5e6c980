#include "harness/measure.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace bench {
namespace {

constexpr int kLeastSamples = 3;

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// How often a contestant runs in a sample, and how many samples it gives.
struct Pace {
  std::int64_t runs;
  int samples;
};

double sample(const Contestant& contestant, std::int64_t runs) {
  if (contestant.before) contestant.before();
  // The others have just used the caches: the first of several runs brings its own data back.
  if (runs > 1) contestant.run();
  const double start = now();
  for (std::int64_t i = 0; i < runs; ++i) contestant.run();
  const double seconds = (now() - start) / static_cast<double>(runs);
  if (contestant.after) contestant.after();
  return seconds;
}

// The first sample meets cold caches and untouched pages, so a second one decides how often a short
// run is repeated.
Pace find_pace(const Contestant& contestant, const Effort& effort) {
  double seconds = sample(contestant, 1);
  if (seconds < effort.sample_seconds) seconds = sample(contestant, 1);
  Pace pace{1, effort.rounds};
  if (!contestant.single && seconds < effort.sample_seconds) {
    pace.runs = std::llround(std::ceil(effort.sample_seconds / std::max(seconds, 1e-8)));
  }
  const double all_seconds = seconds * static_cast<double>(pace.runs) * effort.rounds;
  const double share = std::min(1.0, effort.budget_seconds / all_seconds);
  pace.samples = std::max(static_cast<int>(effort.rounds * share), kLeastSamples);
  return pace;
}

// Spreads a contestant's samples evenly over the rounds.
bool takes_part(const Pace& pace, int round, int rounds) {
  return (round + 1) * pace.samples / rounds > round * pace.samples / rounds;
}

}  // namespace

std::vector<Timing> time_rounds(const Contestants& contestants, const Effort& effort) {
  std::vector<Timing> timings;
  std::vector<Pace> paces;
  for (const Contestant& contestant : contestants) {
    timings.push_back({contestant.name, contestant.role, {}});
    paces.push_back(find_pace(contestant, effort));
  }
  for (int round = 0; round < effort.rounds; ++round) {
    for (std::size_t turn = 0; turn < contestants.size(); ++turn) {
      const std::size_t i = (turn + static_cast<std::size_t>(round)) % contestants.size();
      if (!takes_part(paces[i], round, effort.rounds)) continue;
      timings[i].seconds.push_back(sample(contestants[i], paces[i].runs));
    }
  }
  return timings;
}

double median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const std::size_t middle = samples.size() / 2;
  return samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

void require(bool holds, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "bench: this must hold but does not: %s\n", what.c_str());
  std::exit(1);
}

}  // namespace bench
