// The arguments of qx-mpi.
#include <charconv>
#include <limits>
#include <map>

#include "support.hpp"
#include "tool.hpp"

namespace qx {
namespace {

struct Range {
  std::int64_t least;
  std::int64_t most;
};

constexpr Range kAny = {std::numeric_limits<std::int64_t>::min(),
                        std::numeric_limits<std::int64_t>::max()};

std::int64_t number_of(const std::string& name, const std::string& text, const Range& range) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  require(error == std::errc() && rest == end && number >= range.least && number <= range.most,
          name, " is ", text, ", and must be a number from ", range.least, " to ", range.most);
  return number;
}

void check(const Options& options, bool probes_given) {
  require(!options.vectors.empty(), "--vectors FILE is missing");
  require(!options.queries.empty(), "--queries FILE is missing");
  require(options.insert.empty() == options.insert_ids.empty(),
          "--insert and --insert-ids go together");
  require(options.labels.empty() == !options.label, "--labels and --label go together");
  require(!probes_given || options.lists > 0, "--nprobe goes with --ivf");
  const int ways = (options.exact ? 1 : 0) + (options.label ? 1 : 0) + (options.lists > 0 ? 1 : 0);
  require(ways <= 1, "--exact, --label and --ivf exclude each other");
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
  --labels FILE       a label for each row of --vectors, an int64
  --label N           search only the rows whose label is N
  --ivf N             learn N lists from a sample of the rows, and search through the best of them:
                      an answer is approximate, and of the rows of --vectors alone
  --nprobe N          how many lists a query looks into (8)
  --exact             search the rows of --vectors alone, as if nothing had been changed
  --batch N           queries that are searched at once (64)
  --measure SECONDS   print times instead of results: for batches of 1, 2, 4, ... up to --batch
  --help              print this

A result is a line of four fields, parted by tabs: query, place, id, score.
)";

Options read_options(int count, char** arguments) {
  Options options;
  std::int64_t label = 0;
  std::int64_t probes = 0;
  const std::map<std::string, std::string*> files = {
      {"--vectors", &options.vectors},       {"--ids", &options.ids},
      {"--queries", &options.queries},       {"--insert", &options.insert},
      {"--insert-ids", &options.insert_ids}, {"--delete", &options.erase},
      {"--labels", &options.labels}};
  const std::map<std::string, std::pair<std::int64_t*, Range>> numbers = {
      {"--k", {&options.k, {1, 1 << 20}}},          {"--batch", {&options.batch, {1, 1 << 20}}},
      {"--measure", {&options.measure, {1, 3600}}}, {"--label", {&label, kAny}},
      {"--ivf", {&options.lists, {1, 1 << 22}}},    {"--nprobe", {&probes, {1, 1 << 22}}}};
  for (int i = 1; i < count; ++i) {
    const std::string name = arguments[i];
    options.help = name == "--help";
    if (options.help) return options;
    options.exact = options.exact || name == "--exact";
    if (name == "--exact") continue;
    const auto file = files.find(name);
    const auto number = numbers.find(name);
    require(file != files.end() || number != numbers.end(), "unknown argument ", name);
    require(++i < count, name, " needs a value");
    if (file != files.end()) *file->second = arguments[i];
    if (number == numbers.end()) continue;
    *number->second.first = number_of(name, arguments[i], number->second.second);
    if (name == "--label") options.label = label;
  }
  if (probes > 0) options.probes = static_cast<std::int32_t>(probes);
  check(options, probes > 0);
  return options;
}

}  // namespace qx
