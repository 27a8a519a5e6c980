// The stages of `./check scale`, and their report.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "kernels/kernels.h"
#include "qx_runtime.h"
#include "support/call.h"

namespace qx_scale {

using Handle = std::unique_ptr<QxIndex, decltype(&qx_index_free)>;
using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;

inline constexpr std::int64_t kGiB = std::int64_t{1} << 30;

// An index of vectors of one float.
inline Handle new_index() { return Handle(qx_index_new(1, 0), qx_index_free); }

// Prints each result with the time since the start, and counts them.
class Report {
 public:
  void expect(bool holds, const char* fact) {
    ++(holds ? passed_ : failed_);
    const std::chrono::duration<double> past = std::chrono::steady_clock::now() - start_;
    std::printf("  %-6s %7.1f s  %s\n", holds ? "ok" : "FAILED", past.count(), fact);
    std::fflush(stdout);
  }
  void stage(const char* name) { std::printf("== %s\n", name); }

  std::int64_t passed() const { return passed_; }
  std::int64_t failed() const { return failed_; }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::int64_t passed_ = 0;
  std::int64_t failed_ = 0;
};

// Does the work under every kernel that runs here.
template <typename Work>
void under_every_kernel(Work work) {
  for (const qx::Kernels* const* next = qx::all_kernels(); *next != nullptr; ++next) {
    if (!qx::force_kernels((*next)->name)) continue;
    std::printf("  kernel %s\n", (*next)->name);
    work();
  }
  qx::force_kernels(nullptr);
}

struct Hits {
  Ids ids;
  Floats scores;
  bool operator==(const Hits& other) const = default;
};

// The slots that a search fills, which takes these arguments before k.
template <typename Search, typename... Arguments>
Hits hits_of(std::int32_t k, Search search, const QxIndex* index, Arguments... arguments) {
  Hits hits{Ids(static_cast<std::size_t>(k)), Floats(static_cast<std::size_t>(k))};
  const auto found = static_cast<std::size_t>(
      qx_test::call_c(search, index, arguments..., k, hits.ids.data(), hits.scores.data()));
  hits.ids.resize(found);
  hits.scores.resize(found);
  return hits;
}

// Rows of this many floats.
inline constexpr std::int64_t kWidth = 128;

// The most memory that a base of `rows` rows takes in its stage, the host's part included.
std::int64_t vectors_stage_bytes(std::int64_t rows);

// Builds a base of `rows` rows, searches it, changes it and exports it.
void run_vectors(std::int64_t rows, Report& report);

// The largest ids, the first id beyond them, and a table of more than 2^32 bytes.
void run_ids(Report& report);

// More than 2^28 partitions, and more than 2^28 members of IVF lists.
void run_partitions(Report& report);
void run_lists(Report& report);

// More than 2^27 tombstones, at which a map needs wide table slots.
void run_tombstones(Report& report);

// The most memory that any of these four takes.
inline constexpr std::int64_t kTablesStageBytes = 10 * kGiB;

}  // namespace qx_scale
