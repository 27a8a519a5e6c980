#include <algorithm>
#include <cmath>
#include <cstddef>

#include "report.h"
#include "text.h"
#include "tour_steps.h"

namespace {

constexpr std::size_t kRepetitions = 31;
constexpr int kLongRepetitions = 3;
constexpr std::int32_t kNeighbours = 10;
constexpr std::int64_t kCandidates = 1000;
constexpr std::size_t kInterfaceFunctions = 30;

// Measures kinds of calls, each with another word every time, and prints a line for each.
class Costs {
 public:
  explicit Costs(Tour& tour)
      : search_(tour.search),
        index_(tour.index()),
        ids_(spread_ids(search_.vocabulary(), kRepetitions)),
        candidates_(spread_ids(search_.vocabulary(), kCandidates)) {}

  void print() {
    table_.print_row({"", "median", "rows", "rows/s", "GB/s"});
    print_builds();
    print_exact();
    print_ivf();
    print_current();
    print_changes();
    print_listings();
  }

 private:
  // what  what the calls did; rows  how many vectors each of them read, 0 if none.
  void print_cost(const std::string& function, const std::string& what, std::vector<double> times,
                  double rows) {
    const double middle = median(std::move(times));
    const double per_second = middle > 0 ? rows / middle * 1e9 : 0;
    const double row_bytes = static_cast<double>(search_.dimension()) * sizeof(float);
    std::vector<std::string> cells = {fitted(function, 26) + what, time_text(middle), "", "", ""};
    if (rows > 0) {
      cells[2] = grouped(std::llround(rows));
      cells[3] = decimal(per_second / 1e6, 1) + " M";
      cells[4] = decimal(per_second * row_bytes / 1e9, 2);
    }
    table_.print_row(cells);
  }

  // Makes the call once for each of the words.
  template <typename Call>
  void measure(const std::string& what, double rows, Call call) {
    std::vector<double> times;
    for (std::size_t i = 0; i < kRepetitions; ++i) {
      call(search_.vector(ids_[i % ids_.size()]));
      times.push_back(index_.log().last().nanoseconds);
    }
    print_cost(index_.log().last().function, what, std::move(times), rows);
  }

  double base_rows() const { return static_cast<double>(search_.vocabulary().original_size()); }

  // An index must not be built twice, so each repetition has an index of its own.
  void print_builds() {
    const Rows rows = index_.export_base();
    std::vector<double> times;
    for (int i = 0; i < kLongRepetitions; ++i) {
      Index fresh(search_.dimension(), 0, index_.log());
      fresh.build(rows, search_.partitions());
      times.push_back(index_.log().last().nanoseconds);
    }
    print_cost("qx_index_build", "a new index", std::move(times), base_rows());
  }

  void print_exact() {
    measure("k = 10", base_rows(),
            [&](std::span<const float> query) { index_.search_full(query, kNeighbours); });
    measure("k = 100", base_rows(),
            [&](std::span<const float> query) { index_.search_full(query, 100); });
    const Partitions& partitions = search_.partitions();
    const auto largest = std::max_element(partitions.sizes.begin(), partitions.sizes.end());
    const std::int64_t key =
        partitions.keys[static_cast<std::size_t>(largest - partitions.sizes.begin())];
    measure("partition " + letter_name(key), *largest, [&](std::span<const float> query) {
      index_.search_partition(key, query, kNeighbours);
    });
    measure("a list of ids", static_cast<double>(candidates_.size()),
            [&](std::span<const float> query) {
              index_.search_candidates(candidates_, query, kNeighbours);
            });
  }

  // The centroids are read as well as the rows of the lists.
  void print_ivf() {
    const double rows = mean_rows_scanned(search_, ids_, search_.probes());
    measure(std::to_string(search_.probes()) + " of " + std::to_string(search_.lists().count()) +
                " lists",
            rows + search_.lists().count(),
            [&](std::span<const float> query) { index_.search_ivf(kIvfKey, query, kNeighbours); });
  }

  void print_current() {
    measure("a list of ids", static_cast<double>(candidates_.size()),
            [&](std::span<const float> query) {
              index_.search_current(candidates_, query, kNeighbours);
            });
    print_filtered("every visible row", Filter::every_row());
    print_filtered("label s", Filter::label('s'));
    print_filtered("6 characters", Filter::column_value(kLengthColumn, 6));
  }

  void print_filtered(const std::string& what, const Filter& filter) {
    const double rows = static_cast<double>(index_.match_ids(filter).size());
    measure(what, rows, [&](std::span<const float> query) {
      index_.search_filtered(filter, query, kNeighbours);
    });
  }

  // The word is visible before and after.
  void print_changes() {
    const std::int64_t id = ids_.back();
    measure("a row in the delta", 0, [&](std::span<const float>) { search_.insert(id); });
    measure("an id", 0, [&](std::span<const float>) { search_.erase(id); });
    search_.insert(id);
  }

  void print_listings() {
    measure("6 characters", 0, [&](std::span<const float>) {
      index_.match_ids(Filter::column_value(kLengthColumn, 6));
    });
    measure("", 0, [&](std::span<const float>) { index_.visible_count(); });
    measure("", 0, [&](std::span<const float>) { index_.visible_ids(); });
    measure("a list of ids", 0,
            [&](std::span<const float>) { index_.export_metadata(candidates_); });
    const double visible = static_cast<double>(index_.visible_count());
    std::vector<double> times;
    for (int i = 0; i < kLongRepetitions; ++i) {
      index_.export_visible();
      times.push_back(index_.log().last().nanoseconds);
    }
    print_cost("qx_index_export_visible", "vectors and ids", std::move(times), visible);
  }

  WordSearch& search_;
  Index& index_;
  std::vector<std::int64_t> ids_;
  std::vector<std::int64_t> candidates_;
  Table table_{{53, 9, 11, 12, 8}};
};

// The time that measuring adds to every call.
double clock_cost() {
  CallLog log;
  for (std::size_t i = 0; i < 1000; ++i) {
    const CallTimer timer(log, "nothing");
  }
  return median(log.times("nothing"));
}

}  // namespace

void show_costs(Tour& tour) {
  tour.begin_step("What the calls cost");
  print_text("Median of " + std::to_string(kRepetitions) + " calls with different words, of " +
             std::to_string(kLongRepetitions) + " for builds and exports. Rows: the vectors that " +
             "a call reads. Reading the clock is " + time_text(clock_cost()) +
             " of each. The single calls above are slower where they found nothing in the caches.");
  Costs(tour).print();
  print_text("This tour called " + std::to_string(tour.search.log().distinct_functions()) +
             " of the library's " + std::to_string(kInterfaceFunctions) + " functions.");
}
