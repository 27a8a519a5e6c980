// What it costs that no result depends on the host's floating-point environment: the same short
// calls in environments that a host may have set, and the guard around arithmetic by itself.
#include <xmmintrin.h>

#include <algorithm>
#include <vector>

#include "harness/data.h"
#include "sections/sections.h"
#include "support/fp_environment.h"

namespace bench {
namespace {

constexpr std::int64_t kRows = 1000;
constexpr std::int64_t kDim = 128;
constexpr std::int32_t kResults = 10;
constexpr std::int64_t kRepeats = 1000;  // of a call, in one environment

// MXCSR.
constexpr unsigned kDefault = 0x1F80;
constexpr unsigned kInexactFlag = 0x1FA0;  // as most hosts have it, after their first division
constexpr unsigned kFlushing = 0x9FC0;

struct Host {
  explicit Host(Random& random)
      : vectors(random_floats(kRows * kDim, random)),
        index(built_index(vectors.data(), ascending_ids(kRows), kDim)),
        queries(kDim, random),
        listed(sparse_ids(10, kRows, random)) {}

  Floats vectors;
  Index index;
  Queries queries;
  Ids listed;
  Ids ids = Ids(kResults);
  std::vector<float> scores = std::vector<float>(kResults);
};

void search_listed(Host& host) {
  consume(qx_index_search_mvcc(host.index.get(), host.listed.data(), count32_of(host.listed),
                               host.queries.next(), kResults, host.ids.data(), host.scores.data()));
}

void search_all(Host& host) {
  consume(qx_index_search_full(host.index.get(), host.queries.next(), kResults, host.ids.data(),
                               host.scores.data()));
}

void guard_nothing(Host& host) {
  qx::in_default_fp_environment([&] { consume(host); });
}

// The environment is set once for many calls, so that setting it is not what is timed.
Contestant in_environment(const char* name, Role role, unsigned mxcsr, Host& host,
                          void (*call)(Host&)) {
  return {name, role, [&host, mxcsr, call] {
            const unsigned before = _mm_getcsr();
            _mm_setcsr(mxcsr);
            for (std::int64_t i = 0; i < kRepeats; ++i) call(host);
            _mm_setcsr(before);
          }};
}

}  // namespace

void run_environment(const Settings& settings, Results& results) {
  Random random(12);
  Host host(random);
  struct Call {
    const char* name;
    void (*call)(Host&);
  };
  for (const auto& [name, call] :
       {Call{"search_mvcc, 10 ids", search_listed}, Call{"search_full, 1,000 x 128", search_all},
        Call{"the guard alone", guard_nothing}}) {
    const std::vector<Contestant> contestants = {
        in_environment("flushing", Role::kEngine, kFlushing, host, call),
        in_environment("default", Role::kBaseline, kInexactFlag, host, call),
        in_environment("no flag set", Role::kKernel, kDefault, host, call)};
    compare(settings, results, {"environment", {{"call", name}}, 0, kRepeats}, contestants);
  }
}

}  // namespace bench
