// qx-mpi: neighbours of queries among the rows of files that no rank holds whole.
#include <mpi.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <qx_runtime.hpp>
#include <string>
#include <vector>

#include "loading.hpp"
#include "options.hpp"
#include "sharded_index.hpp"

namespace qx {
namespace {

// The part of the queries from `first` on, on rank 0; nothing elsewhere.
std::span<const float> part_of(const std::vector<float>& queries, std::int64_t first,
                               std::int64_t count, std::int32_t dim) {
  if (queries.empty()) return {};
  return std::span(queries).subspan(static_cast<std::size_t>(first * dim),
                                    static_cast<std::size_t>(count * dim));
}

std::vector<Hits> search(const Options& options, std::span<const float> queries,
                         ShardedIndex& index) {
  if (options.exact) return index.search_full(queries, options.k);
  if (options.lists > 0) return index.search_ivf(kLearnedLists, queries, options.k);
  const Filter filter = options.label ? Filter::label(*options.label) : Filter::all();
  return index.search_filtered(filter, queries, options.k);
}

void print_results(const Options& options, const std::vector<float>& queries, std::int64_t count,
                   ShardedIndex& index) {
  for (std::int64_t first = 0; first < count; first += options.batch) {
    const std::int64_t size = std::min(options.batch, count - first);
    std::int64_t query = first;
    for (const Hits& hits : search(options, part_of(queries, first, size, index.dim()), index)) {
      for (std::size_t place = 0; place < hits.size(); ++place) {
        std::printf("%lld\t%zu\t%lld\t%.9g\n", static_cast<long long>(query), place,
                    static_cast<long long>(hits.ids[place]),
                    static_cast<double>(hits.scores[place]));
      }
      ++query;
    }
  }
}

// Times batches of one size for some seconds; rank 0 decides when they are over.
std::vector<double> times_of(const Options& options, const std::vector<float>& queries,
                             std::int64_t batch, std::int64_t count, ShardedIndex& index) {
  std::vector<double> times;
  std::int64_t first = 0;
  const double began = MPI_Wtime();
  bool goes_on = true;
  while (goes_on) {
    const double start = MPI_Wtime();
    search(options, part_of(queries, first, batch, index.dim()), index);
    times.push_back(MPI_Wtime() - start);
    first = first + 2 * batch <= count ? first + batch : 0;
    goes_on = index.ranks().from_root([&] {
      return times.size() < 5 || MPI_Wtime() - began < static_cast<double>(options.measure);
    });
  }
  std::sort(times.begin(), times.end());
  return times;
}

void print_times(const Options& options, const std::vector<float>& queries, std::int64_t count,
                 ShardedIndex& index) {
  const bool prints = index.ranks().is_root();
  if (prints) std::printf("ranks\tbatch\tsamples\tmedian_us\tp90_us\tus_a_query\n");
  for (std::int64_t batch = 1; batch <= std::min(options.batch, count); batch *= 2) {
    const std::vector<double> times = times_of(options, queries, batch, count, index);
    if (!prints) continue;
    const double median = 1e6 * times[times.size() / 2];
    std::printf("%d\t%lld\t%zu\t%.1f\t%.1f\t%.1f\n", index.ranks().size(),
                static_cast<long long>(batch), times.size(), median,
                1e6 * times[times.size() * 9 / 10], median / static_cast<double>(batch));
    std::fflush(stdout);
  }
}

void run(const Options& options, const Communicator& world) {
  const std::unique_ptr<ShardedIndex> index = load_index(options, world);
  const std::vector<float> queries = read_vectors(options.queries, *index);
  const std::int64_t count =
      world.from_root([&] { return std::int64_t{std::ssize(queries)} / index->dim(); });
  if (options.measure > 0) {
    print_times(options, queries, count, *index);
  } else {
    print_results(options, queries, count, *index);
  }
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
