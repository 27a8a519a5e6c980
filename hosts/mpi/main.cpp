// qx-mpi: neighbours of queries among the rows of files that no rank holds whole.
#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <qx_runtime.hpp>
#include <vector>

#include "sharded_index.hpp"
#include "support.hpp"
#include "tool.hpp"

namespace qx {
namespace {

// An index, and queries for it that are on rank 0 alone.
struct Searches {
  const Options& options;
  ShardedIndex& index;
  std::vector<float> queries;
  std::int64_t count;

  std::vector<Hits> search(std::int64_t first, std::int64_t size) const {
    const std::size_t dim = at(index.dim());
    const auto asked = queries.empty()
                           ? std::span<const float>()
                           : std::span(queries).subspan(at(first) * dim, at(size) * dim);
    if (options.exact) return index.search_full(asked, options.k);
    if (options.lists > 0) return index.search_ivf(kLearnedLists, asked, options.k);
    const Filter filter = options.label ? Filter::label(*options.label) : Filter::all();
    return index.search_filtered(filter, asked, options.k);
  }
};

void print_results(const Searches& searches) {
  const std::int64_t batch = searches.options.batch;
  std::cout.precision(9);
  for (std::int64_t first = 0; first < searches.count; first += batch) {
    std::int64_t query = first;
    for (const Hits& hits : searches.search(first, std::min(batch, searches.count - first))) {
      for (std::size_t place = 0; place < hits.size(); ++place) {
        std::cout << query << '\t' << place << '\t' << hits.ids[place] << '\t' << hits.scores[place]
                  << '\n';
      }
      ++query;
    }
  }
}

// Times batches of one size for some seconds; rank 0 decides when they are over.
std::vector<double> times_of(const Searches& searches, std::int64_t batch) {
  std::vector<double> times;
  std::int64_t first = 0;
  const double end = MPI_Wtime() + static_cast<double>(searches.options.measure);
  do {
    const double start = MPI_Wtime();
    searches.search(first, batch);
    times.push_back(MPI_Wtime() - start);
    first = first + 2 * batch <= searches.count ? first + batch : 0;
  } while (searches.index.ranks().from_root([&] { return times.size() < 5 || MPI_Wtime() < end; }));
  std::sort(times.begin(), times.end());
  return times;
}

void print_times(const Searches& searches) {
  const Communicator& ranks = searches.index.ranks();
  if (ranks.is_root()) std::printf("ranks\tbatch\tsamples\tmedian_us\tp90_us\tus_a_query\n");
  const std::int64_t most = std::min(searches.options.batch, searches.count);
  for (std::int64_t batch = 1; batch <= most; batch *= 2) {
    const std::vector<double> times = times_of(searches, batch);
    if (!ranks.is_root()) continue;
    const double median = 1e6 * times[times.size() / 2];
    std::printf("%d\t%lld\t%zu\t%.1f\t%.1f\t%.1f\n", ranks.size(), static_cast<long long>(batch),
                times.size(), median, 1e6 * times[times.size() * 9 / 10],
                median / static_cast<double>(batch));
    std::fflush(stdout);
  }
}

void run(const Options& options, const Communicator& world) {
  const std::unique_ptr<ShardedIndex> index = load_index(options, world);
  Searches searches{options, *index, read_vectors(options.queries, *index), 0};
  searches.count =
      world.from_root([&] { return std::int64_t{std::ssize(searches.queries)} / index->dim(); });
  options.measure > 0 ? print_times(searches) : print_results(searches);
}

// All ranks end with the same status, whichever of them failed; rank 0 prints the error.
int run_all(int count, char** arguments) {
  const Communicator world(MPI_COMM_WORLD);
  try {
    Options options;
    world.together([&] { options = read_options(count, arguments); });
    if (!options.help) {
      run(options, world);
    } else if (world.is_root()) {
      std::fputs(kUsage, stdout);
    }
    return 0;
  } catch (const std::exception& error) {
    if (world.is_root()) std::fprintf(stderr, "qx-mpi: %s\n", error.what());
    return 1;
  }
}

}  // namespace
}  // namespace qx

int main(int count, char** arguments) {
  MPI_Init(&count, &arguments);
  const int result = qx::run_all(count, arguments);
  MPI_Finalize();
  return result;
}
