// What stands around a search: the checks of the C++ header, the host's floating-point environment,
// and another thread on the same handle.
#include <xmmintrin.h>

#include <span>
#include <thread>

#include "harness/data.h"
#include "qx_runtime.hpp"
#include "sections/sections.h"
#include "support/fp_environment.h"

namespace bench {
namespace {

// One base, which both interfaces search, and a host's buffers.
struct Host {
  Host(std::int64_t rows, std::int64_t vector_dim, std::int64_t candidates, Random& random)
      : dim(vector_dim), queries(dim, random), index(static_cast<std::int32_t>(dim)) {
    const Floats vectors = random_floats(rows * dim, random);
    const std::span floats(vectors.data(), static_cast<std::size_t>(rows * dim));
    index.build(floats, ascending_ids(rows));
    for (std::int64_t i = 0; i < candidates; ++i) listed.push_back(random.below(rows));
  }
  std::span<const float> query() { return {queries.next(), static_cast<std::size_t>(dim)}; }

  std::int64_t dim;
  Queries queries;
  qx::cpp::Index index;
  Index for_inserts = empty_index(dim);  // since the header gives away no handle to change
  Ids listed;
  Ids one = {7};
  Slots slots;
};

using Call = void (*)(Host& host);

void search_full(Host& h) { consume(h.slots.search_full(h.index.handle(), h.queries.next())); }
void search_mvcc(Host& h) {
  const std::int64_t* const listed = h.listed.data();
  consume(h.slots.search_mvcc(h.index.handle(), listed, count_of(h.listed), h.queries.next()));
}
void insert_checked(Host& h) { consume(h.index.insert(h.query(), h.one)); }

// A call in C, by the header with the host's slots, and by the header with results of its own.
struct Checked {
  const char* name;
  bool only_small;
  Call in_c;
  Call by_slots;
  Call by_results;
};
constexpr Checked kChecked[] = {
    {"search_full", false, search_full,
     [](Host& h) { consume(h.index.search_full(h.query(), h.slots.ids, h.slots.scores)); },
     [](Host& h) { consume(h.index.search_full(h.query(), kResults)); }},
    {"search_mvcc", false, search_mvcc,
     [](Host& h) {
       consume(h.index.search_mvcc(h.listed, h.query(), h.slots.ids, h.slots.scores));
     },
     [](Host& h) { consume(h.index.search_mvcc(h.listed, h.query(), kResults)); }},
    {"insert", true,
     [](Host& h) {
       consume(qx_index_insert(h.for_inserts.get(), h.queries.next(), h.one.data(), 1));
     },
     insert_checked, insert_checked}};

void run_header(Run& run) {
  Random random(11);
  for (const std::int64_t rows : {10, 1000, 100000}) {
    for (const std::int64_t dim : {16, 128}) {
      Host host(rows, dim, 100, random);
      for (const Checked& call : kChecked) {
        if (call.only_small && rows != 10) continue;
        run.compare({{"call", call.name}, {"rows", rows}, {"dim", dim}, {"k", kResults}}, 0, 1,
                    {{"slots", Role::kEngine, [&] { call.by_slots(host); }},
                     {"C", Role::kBaseline, [&] { call.in_c(host); }},
                     {"results", Role::kKernel, [&] { call.by_results(host); }}});
      }
    }
  }
}

// MXCSR.
constexpr unsigned kDefault = 0x1F80;
constexpr unsigned kInexactFlag = 0x1FA0;  // as most hosts have it, after their first division
constexpr unsigned kFlushing = 0x9FC0;

void guard_nothing(Host& h) {
  qx::in_default_fp_environment([&] { consume(h); });
}

void run_environment(Run& run) {
  constexpr std::int64_t kRepeats = 1000;  // in one environment: setting it is not what is timed
  Random random(12);
  Host host(1000, 128, 10, random);
  using Named = std::pair<const char*, Call>;
  for (const auto& [name, call] :
       {Named("search_mvcc, 10 ids", search_mvcc), Named("search_full, 1,000 x 128", search_full),
        Named("the guard alone", guard_nothing)}) {
    const auto under = [&host, repeated = call](unsigned mxcsr) {
      return [&host, repeated, mxcsr] {
        const unsigned before = _mm_getcsr();
        _mm_setcsr(mxcsr);
        for (std::int64_t i = 0; i < kRepeats; ++i) repeated(host);
        _mm_setcsr(before);
      };
    };
    run.compare({{"call", name}}, 0, kRepeats,
                {{"flushing", Role::kEngine, under(kFlushing)},
                 {"default", Role::kBaseline, under(kInexactFlag)},
                 {"no flag set", Role::kKernel, under(kDefault)}});
  }
}

// Makes searches, each of another query than the one before.
void search(const Index& index, std::int64_t count) {
  Random random(14);
  Queries queries(128, random);
  Slots slots;
  for (std::int64_t i = 0; i < count; ++i) consume(slots.search_full(index.get(), queries.next()));
}

// Two threads, each with so many searches that its start takes little beside them, against one that
// makes all of them.
void run_readers(Run& run) {
  Random random(13);
  for (const bool large : {false, true}) {
    const std::int64_t rows = large ? run.pick(1000000, 200000) : 1000;
    const std::int64_t searches = large ? 1 : run.pick(5000, 1000);
    const Floats vectors = random_floats(rows * 128, random);
    const Index index = built_index(vectors.data(), ascending_ids(rows), 128);
    run.compare({{"base", large ? "500 MB" : "0.5 MB"}, {"rows", rows}, {"dim", std::int64_t{128}}},
                0, 2 * searches,
                {{"two threads", Role::kEngine,
                  [&] {
                    std::thread other([&] { search(index, searches); });
                    search(index, searches);
                    other.join();
                  }},
                 {"one thread", Role::kBaseline, [&] { search(index, 2 * searches); }}});
  }
}

}  // namespace

const Section kHeader = {"header", "calls of the C++ header, against those of the C interface",
                         run_header};
const Section kEnvironment = {"environment", "short calls in floating-point environments of hosts",
                              run_environment};
const Section kReaders = {"readers", "two threads that search one handle, against one",
                          run_readers};

}  // namespace bench
