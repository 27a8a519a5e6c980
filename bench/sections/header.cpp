// What the checks of the C++ header cost: its calls against the same calls of the C interface, on
// the same index, small and large.
#include <functional>
#include <span>
#include <vector>

#include "harness/data.h"
#include "qx_runtime.hpp"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr std::int32_t kResults = 10;
constexpr std::int64_t kCandidates = 100;

// One index, and a host's buffers.
struct Host {
  Host(std::int64_t rows, std::int64_t dim, Random& random)
      : index(static_cast<std::int32_t>(dim)), queries(dim, random), width(dim) {
    const Floats vectors = random_floats(rows * dim, random);
    const std::span floats(vectors.data(), static_cast<std::size_t>(rows * dim));
    index.build(floats, ascending_ids(rows));
    for (std::int64_t& id : candidates) id = random.below(rows);
    index.insert(query(), one);
  }
  std::span<const float> query() { return {queries.next(), static_cast<std::size_t>(width)}; }

  qx::cpp::Index index;
  Queries queries;
  std::int64_t width;
  Ids candidates = Ids(kCandidates);
  Ids one = {7};
  Ids ids = Ids(kResults);
  std::vector<float> scores = std::vector<float>(kResults);
};

struct Call {
  const char* name;
  std::function<void(Host&)> in_c;
  std::function<void(Host&)> by_slots;
  std::function<void(Host&)> by_results;
};

void compare_call(const Settings& settings, Results& results, Host& host, const Call& call) {
  const std::vector<Contestant> contestants = {
      {"slots", Role::kEngine, [&] { call.by_slots(host); }},
      {"C", Role::kBaseline, [&] { call.in_c(host); }},
      {"results", Role::kKernel, [&] { call.by_results(host); }}};
  const Labels labels = {
      {"call", call.name}, {"rows", host.index.size()}, {"dim", host.width}, {"k", kResults}};
  compare(settings, results, {"header", labels, 0, 1}, contestants);
}

// The C interface changes an index only through a handle that the header does not give away.
void compare_inserts(const Settings& settings, Results& results, Host& host) {
  const Index plain = empty_index(host.width);
  const Call insert = {
      "insert",
      [&](Host& h) { consume(qx_index_insert(plain.get(), h.queries.next(), h.one.data(), 1)); },
      [](Host& h) { consume(h.index.insert(h.query(), h.one)); },
      [](Host& h) { consume(h.index.insert(h.query(), h.one)); }};
  compare_call(settings, results, host, insert);
}

const std::vector<Call>& searches() {
  static const std::vector<Call> calls = {
      {"search_full",
       [](Host& h) {
         consume(qx_index_search_full(h.index.handle(), h.queries.next(), kResults, h.ids.data(),
                                      h.scores.data()));
       },
       [](Host& h) { consume(h.index.search_full(h.query(), h.ids, h.scores)); },
       [](Host& h) { consume(h.index.search_full(h.query(), kResults)); }},
      {"search_mvcc",
       [](Host& h) {
         consume(qx_index_search_mvcc(h.index.handle(), h.candidates.data(),
                                      static_cast<std::int32_t>(kCandidates), h.queries.next(),
                                      kResults, h.ids.data(), h.scores.data()));
       },
       [](Host& h) { consume(h.index.search_mvcc(h.candidates, h.query(), h.ids, h.scores)); },
       [](Host& h) { consume(h.index.search_mvcc(h.candidates, h.query(), kResults)); }}};
  return calls;
}

}  // namespace

void run_header(const Settings& settings, Results& results) {
  Random random(11);
  for (const std::int64_t rows : {std::int64_t{10}, std::int64_t{1000}, std::int64_t{100000}}) {
    for (const std::int64_t dim : {16, 128}) {
      Host host(rows, dim, random);
      for (const Call& call : searches()) compare_call(settings, results, host, call);
      if (rows == 10) compare_inserts(settings, results, host);
    }
  }
}

}  // namespace bench
