// qx-mpi: neighbours of queries among the rows of files that no rank holds whole.
#include <charconv>
#include <cstdio>
#include <iostream>
#include <set>

#include "tool.hpp"

namespace qx::mpi {
namespace {

// What takes a text, and what a number from 1 up to the one here.
const std::set<std::string> kTexts = {"--vectors", "--ids",        "--queries",
                                      "--insert",  "--insert-ids", "--delete",
                                      "--filter",  "--save",       "--load"};
const std::map<std::string, std::int64_t> kNumbers = {
    {"--k", 1 << 20}, {"--batch", 1 << 20}, {"--threads", 1 << 10}, {"--measure", 3600}};

void check_number(const std::string& name, const std::string& text, std::int64_t most) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  require(error == std::errc() && rest == end && number >= 1 && number <= most, name, " is ", text,
          ", and must be a number from 1 to ", most);
}

void check(const Options& options) {
  const auto has = [&](const char* name) { return options.has(name); };
  require(has("--vectors") != has("--load"), "give either --vectors or --load");
  require(!has("--load") || (!has("--ids") && options.integers.empty()),
          "--ids and --integers go with --vectors");
  require(has("--queries") || has("--save"), "give --queries, --save or both");
  require(has("--queries") || options.number("--measure") == 0, "--measure goes with --queries");
  require(has("--insert") == has("--insert-ids"), "--insert and --insert-ids go together");
}

constexpr const char* kUsage =
    R"(mpirun -n RANKS qx-mpi (--vectors FILE | --load FOLDER) [OPTION]...

Finds neighbours of queries among the rows of one collection, which the ranks hold together: each
reads its own range of the files. Files are NumPy's (.npy): float32 matrices and lists of int64.

  --vectors FILE         the rows
  --ids FILE             their ids, distinct; without it, row numbers
  --integers NAME FILE   a column of integers, one for each row; may be given again
  --load FOLDER          rows that as many ranks have saved
  --insert FILE          rows to insert then, whose columns are NULL, with
  --insert-ids FILE      their ids; a row of the same id is replaced
  --delete FILE          ids to delete then
  --save FOLDER          save the rows then
  --queries FILE         the queries, read by rank 0
  --k N                  results for each query (10)
  --filter TEXT          search only rows that pass, as 'year >= 2000 AND label IN (3, 5)'
  --batch N              queries that are searched at once (64)
  --threads N            of each rank, at most (as many as it may run on)
  --measure SECONDS      print times instead of results: for batches of 1, 8, 64, ... up to --batch
  --help                 print this

A result is a line of four fields, parted by tabs: query, place, id, score.
)";

Options read_options(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string name = arguments[i];
    if (name == "--help") options.given[name] = "";
    if (options.has("--help")) return options;
    const bool is_column = name == "--integers";
    const auto number = kNumbers.find(name);
    require(is_column || number != kNumbers.end() || kTexts.contains(name), "unknown argument ",
            name);
    require(i + (is_column ? 2 : 1) < count, name, " needs ", is_column ? "NAME FILE" : "a value");
    const std::string value = arguments[++i];
    if (number != kNumbers.end()) check_number(name, value, number->second);
    if (!is_column) options.given[name] = value;
    if (is_column) options.integers.emplace_back(value, arguments[++i]);
  }
  check(options);
  return options;
}

// A collection, and queries for it that are on rank 0 alone.
struct Searches {
  const Options& options;
  const ShardedCollection& collection;
  std::vector<float> queries;
  std::int64_t count;

  ShardedCollection::Hits search(std::int64_t first, std::int64_t size) const {
    const std::int64_t dim = collection.ranks().is_root() ? collection.schema().dim : 0;
    return collection.search(std::span(queries).subspan(at(first * dim), at(size * dim)),
                             options.number("--k"), options.text("--filter"));
  }
};

void print_results(const Searches& searches) {
  const std::int64_t batch = searches.options.number("--batch");
  std::cout.precision(9);
  for (std::int64_t first = 0; first < searches.count; first += batch) {
    std::int64_t query = first;
    for (const auto& hits : searches.search(first, std::min(batch, searches.count - first))) {
      std::int64_t place = 0;
      for (const auto [id, score] : hits) {
        std::cout << query << '\t' << place++ << '\t' << id << '\t' << score << '\n';
      }
      ++query;
    }
  }
}

// Times batches of one size for some seconds; rank 0 decides when they are over.
std::vector<double> times_of(const Searches& searches, std::int64_t batch) {
  std::vector<double> times;
  std::int64_t first = 0;
  searches.search(first, batch);
  const double end = MPI_Wtime() + static_cast<double>(searches.options.number("--measure"));
  const auto goes_on = [&] { return times.size() < 5 || MPI_Wtime() < end; };
  do {
    const double start = MPI_Wtime();
    searches.search(first, batch);
    times.push_back(MPI_Wtime() - start);
    first = first + 2 * batch <= searches.count ? first + batch : 0;
  } while (searches.collection.ranks().from_root(goes_on));
  std::ranges::sort(times);
  return times;
}

void print_times(const Searches& searches) {
  const Communicator& ranks = searches.collection.ranks();
  const std::int64_t bytes = searches.collection.bytes();
  if (ranks.is_root()) std::cout << "ranks\trows\tbytes\tbatch\tsamples\tmedian_us\tus_a_query\n";
  for (std::int64_t batch = 1;
       batch <= std::min(searches.options.number("--batch"), searches.count); batch *= 8) {
    const std::vector<double> times = times_of(searches, batch);
    if (!ranks.is_root()) continue;
    const double median = 1e6 * times[times.size() / 2];
    std::cout << ranks.size() << '\t' << searches.collection.count() << '\t' << bytes << '\t'
              << batch << '\t' << times.size() << '\t' << median << '\t'
              << median / static_cast<double>(batch) << std::endl;
  }
}

void run(const Options& options, const Communicator& world) {
  const auto collection = load_collection(options, world);
  if (options.has("--save")) collection->save(options.text("--save"));
  if (!options.has("--queries")) return;
  Searches searches{options, *collection, read_vectors(options.text("--queries"), *collection), 0};
  searches.count = world.sum(std::ssize(searches.queries) / collection->schema().dim);
  if (options.number("--measure") == 0) return print_results(searches);
  collection->compact();
  print_times(searches);
}

// All ranks end with the same status, whichever of them failed; rank 0 prints the error.
int run_all(int count, char** arguments) {
  const Communicator world(MPI_COMM_WORLD);
  try {
    Options options;
    world.together([&] { options = read_options(count, arguments); });
    if (!options.has("--help")) {
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
}  // namespace qx::mpi

int main(int count, char** arguments) {
  int provided = 0;
  MPI_Init_thread(&count, &arguments, MPI_THREAD_FUNNELED, &provided);
  const int result = qx::mpi::run_all(count, arguments);
  MPI_Finalize();
  return result;
}
