// Five calls on small fixed data, for counting instructions: reference_calls KERNEL CALL. Nothing
// is timed and nothing is random but the fixed data, so equal code gives equal counts.
//
// The counting tool collects inside functions named counted_*, and so leaves out the preparation.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "harness/data.h"
#include "harness/measure.h"
#include "kernels/kernels.h"

namespace {

constexpr std::int64_t kDim = 100;
constexpr std::int64_t kRows = 5000;
constexpr std::int64_t kLists = 50;

// A base with a few changed rows, labels for all of them and lists over them: lists of equal
// length, whose centroids are the first rows.
struct Data {
  Data() {
    for (const std::int64_t id : ids) labels.push_back(id % 3);
    qx_index_set_rowmeta(index.get(), ids.data(), labels.data(), nullptr, 0, kRows);
    qx_index_insert(index.get(), vectors.data(), ids.data() + 100, 50);
    qx_index_delete(index.get(), ids.data() + 200, 50);
    std::vector<std::int32_t> offsets;
    for (std::int64_t list = 0; list <= kLists; ++list) {
      offsets.push_back(static_cast<std::int32_t>(list * kRows / kLists));
    }
    qx_index_set_ivf(index.get(), 1, kLists, 8, vectors.data(), ids.data(), offsets.data(), kRows);
  }

  bench::Random random{11};
  bench::Floats vectors = bench::random_floats(kRows * kDim, random);
  bench::Floats query = bench::random_floats(kDim, random);
  bench::Ids ids = bench::permuted_ids(kRows, random);
  bench::Ids labels;
  bench::Index index = bench::built_index(vectors.data(), ids, kDim);
  bench::Slots slots;
};

int refuse(const char* why) {
  std::fprintf(stderr, "reference_calls: %s\n", why);
  return 2;
}

}  // namespace

// Their names are what the counting tool looks for: they must be neither inlined nor mangled.
extern "C" {

__attribute__((noinline)) void counted_exact_scan(Data& data) {
  data.slots.search_full(data.index.get(), data.query.data());
}

__attribute__((noinline)) void counted_candidates(Data& data) {
  data.slots.search_mvcc(data.index.get(), data.ids.data(), 2000, data.query.data());
}

__attribute__((noinline)) void counted_filtered(Data& data) {
  bench::Slots& slots = data.slots;
  qx_index_search_filtered(data.index.get(), QX_FILTER_LABEL, 0, 1, data.query.data(), slots.k,
                           slots.ids.data(), slots.scores.data());
}

__attribute__((noinline)) void counted_ivf(Data& data) {
  bench::Slots& slots = data.slots;
  qx_index_search_ivf(data.index.get(), 1, data.query.data(), slots.k, slots.ids.data(),
                      slots.scores.data());
}

__attribute__((noinline)) void counted_mutation(Data& data) {
  qx_index_insert(data.index.get(), data.vectors.data(), data.ids.data() + 1000, 1000);
  qx_index_delete(data.index.get(), data.ids.data() + 500, 1000);
}

}  // extern "C"

// Without a call, the names of the calls are printed, one a line.
int main(int count, char** arguments) {
  struct Call {
    std::string name;
    void (*run)(Data& data);
  };
  const Call calls[] = {{"exact_scan", counted_exact_scan},
                        {"candidates", counted_candidates},
                        {"filtered", counted_filtered},
                        {"ivf", counted_ivf},
                        {"mutation", counted_mutation}};
  if (count != 1 && count != 3) return refuse("usage: reference_calls [KERNEL CALL]");
  if (count == 3 && !qx::force_kernels(arguments[1])) return refuse("no such kernel runs here");
  for (const Call& call : calls) {
    if (count == 1) std::puts(call.name.c_str());
    if (count == 1 || call.name != arguments[2]) continue;
    Data data;
    call.run(data);
    bench::consume(data.slots);
    return 0;
  }
  return count == 1 ? 0 : refuse("no such call");
}
