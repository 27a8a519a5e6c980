#include "options.hpp"

#include <charconv>
#include <map>
#include <qx_runtime.hpp>

namespace qx {
namespace {

std::int64_t number_of(const std::string& name, const std::string& text, std::int64_t most) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || number < 1 || number > most) {
    throw InvalidArgument(name + " is " + text + ", and must be a number from 1 to " +
                          std::to_string(most));
  }
  return number;
}

void check(const Options& options) {
  if (options.vectors.empty()) throw InvalidArgument("--vectors FILE is missing");
  if (options.queries.empty()) throw InvalidArgument("--queries FILE is missing");
  if (options.insert.empty() != options.insert_ids.empty()) {
    throw InvalidArgument("--insert and --insert-ids go together");
  }
}

}  // namespace

const char* const kUsage =
    R"(mpirun -n RANKS qx-mpi --vectors FILE --queries FILE [OPTION]...

Finds the nearest neighbours of queries among the rows of one index, which the ranks hold together:
each reads its own range of the files. Files are NumPy's (.npy): vectors and queries are float32
matrices in C order, ids are lists of int64.

  --vectors FILE      the rows
  --ids FILE          their ids, distinct, from 0 to 2^40 - 1; without it, row numbers
  --queries FILE      the queries, read by rank 0
  --k N               results for each query (10)
  --insert FILE       rows to insert then, with
  --insert-ids FILE   their ids; an id that is there already is overwritten
  --delete FILE       ids to delete then
  --exact             search the rows of --vectors alone, as if nothing had been changed
  --batch N           queries that are searched at once (64)
  --measure SECONDS   print times instead of results: for batches of 1, 2, 4, ... up to --batch
  --help              print this

A result is a line of four fields, parted by tabs: query, place, id, score.
)";

Options read_options(int count, char** arguments) {
  Options options;
  const std::map<std::string, std::string*> files = {
      {"--vectors", &options.vectors}, {"--ids", &options.ids},
      {"--queries", &options.queries}, {"--insert", &options.insert},
      {"--delete", &options.erase},    {"--insert-ids", &options.insert_ids}};
  const std::map<std::string, std::pair<std::int64_t*, std::int64_t>> numbers = {
      {"--k", {&options.k, 1 << 20}},
      {"--batch", {&options.batch, 1 << 20}},
      {"--measure", {&options.measure, 3600}}};
  for (int i = 1; i < count; ++i) {
    const std::string name = arguments[i];
    if (name == "--help") {
      options.help = true;
      return options;
    }
    if (name == "--exact") {
      options.exact = true;
      continue;
    }
    const auto file = files.find(name);
    const auto number = numbers.find(name);
    if (file == files.end() && number == numbers.end()) {
      throw InvalidArgument("unknown argument " + name);
    }
    if (++i == count) throw InvalidArgument(name + " needs a value");
    if (file != files.end()) {
      *file->second = arguments[i];
    } else {
      *number->second.first = number_of(name, arguments[i], number->second.second);
    }
  }
  check(options);
  return options;
}

}  // namespace qx
