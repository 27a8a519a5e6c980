// The exact search of a base in memory where the system gives large pages, and where it does not.
#include <sys/prctl.h>

#include <fstream>
#include <string>

#include "limits/limits.h"
#include "sections/rows.h"
#include "sections/sections.h"

namespace bench {
namespace {

// Gives this process no large page from now on, or gives them again where they are asked for.
void switch_large_pages(bool off) {
  require(prctl(PR_SET_THP_DISABLE, off ? 1 : 0, 0, 0, 0) == 0, "large pages can be switched off");
}

// How much of this process is in large pages.
std::int64_t megabytes_in_large_pages() {
  std::ifstream words("/proc/self/smaps_rollup");
  std::int64_t kilobytes = 0;
  for (std::string word; words >> word;) {
    if (word == "AnonHugePages:") words >> kilobytes;
  }
  return kilobytes >> 10;
}

// A base of the first floats that make whole rows. Large blocks come fresh from the system, so what
// is switched holds for all of its vectors and codes.
void run_case(Run& run, const Floats& values, std::int64_t dim, bool off) {
  switch_large_pages(off);
  const std::int64_t before = megabytes_in_large_pages();
  const std::int64_t rows = values.count() / dim;
  const Index index = built_index(values.data(), ascending_ids(rows), dim);
  const std::int64_t large = megabytes_in_large_pages() - before;
  require(!off || large <= 0, "no page of an index is large where they are switched off");
  Random random(static_cast<std::uint64_t>(dim));
  Queries queries(dim, random);
  Slots slots;
  Contestants contestants = {{"qx_runtime", Role::kEngine,
                              [&] { return slots.search_full(index.get(), queries.next()); }}};
  const std::int64_t bytes = rows * dim * std::int64_t{sizeof(float)};
  add_read_limits(contestants, base_vectors(index), bytes);
  run.compare({{"dim", dim}, {"pages", off ? "off" : "asked for"}, {"large", large}}, bytes, rows,
              contestants);
  switch_large_pages(false);
}

void run_pages(Run& run) {
  const Floats values = rows_of(kNormal, std::int64_t{run.pick(500, 128)} << 20, 1);
  const Ids dims = run.pick(Ids{32, 64, 100, 128, 256, 384, 768, 1536}, Ids{32, 128, 768});
  for (const std::int64_t dim : dims) {
    for (const bool off : {false, true}) run_case(run, values, dim, off);
  }
}

}  // namespace

const Section kPages = {"pages", "exact search in memory, with large pages and without", run_pages};

}  // namespace bench
