// Builds and searches indexes of many gigabytes: scale [LARGEST_GIB]. It uses as much memory as is
// available, or less where a bound is given.
#include <algorithm>
#include <cstdlib>

#include "scale/stages.h"

namespace qx_scale {

namespace {

// Memory left to the rest of the machine.
constexpr std::int64_t kReserve = 3 * kGiB / 2;

// A number of elements slightly above 2^32, 2^31 or 2^30: the largest that fits; 0 if none does.
std::int64_t rows_that_fit(std::int64_t bytes) {
  constexpr std::int64_t kMore = 4099;  // neither whole blocks nor whole groups of rows
  for (const int bits : {32, 31, 30}) {
    const std::int64_t rows = (std::int64_t{1} << bits) / kWidth + kMore;
    if (vectors_stage_bytes(rows) <= bytes) return rows;
  }
  return 0;
}

// The bytes that programs can still allocate, by the system's estimate; 0 if there is none.
std::int64_t available_bytes() {
  std::FILE* const file = std::fopen("/proc/meminfo", "re");
  if (file == nullptr) return 0;
  char line[200];
  long long kibibytes = 0;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    if (std::sscanf(line, "MemAvailable: %lld kB", &kibibytes) == 1) break;
  }
  std::fclose(file);
  return kibibytes * 1024;
}

double gib(std::int64_t bytes) { return static_cast<double>(bytes) / static_cast<double>(kGiB); }

int run(std::int64_t bytes) {
  const std::int64_t rows = rows_that_fit(bytes);
  if (rows == 0 || bytes < kTablesStageBytes) {
    std::fprintf(stderr, "scale: %.1f GiB of memory may be used, at least %.1f are needed\n",
                 gib(bytes), gib(std::max(vectors_stage_bytes(rows), kTablesStageBytes)));
    return 1;
  }
  std::printf("%.1f GiB of memory may be used: a base of %lld rows of %lld floats, %.2f GiB\n",
              gib(bytes), static_cast<long long>(rows), static_cast<long long>(kWidth),
              gib(rows * kWidth * 4));
  Report report;
  run_ids(report);
  run_partitions(report);
  run_lists(report);
  run_tombstones(report);
  run_vectors(rows, report);
  std::printf("scale: %lld passed, %lld failed\n", static_cast<long long>(report.passed()),
              static_cast<long long>(report.failed()));
  return report.failed() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace qx_scale

int main(int count, char** arguments) {
  std::int64_t bytes = qx_scale::available_bytes() - qx_scale::kReserve;
  if (count > 1) {
    bytes = std::min<std::int64_t>(bytes, std::strtoll(arguments[1], nullptr, 10) * qx_scale::kGiB);
  }
  return qx_scale::run(bytes);
}
