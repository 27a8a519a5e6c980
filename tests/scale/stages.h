// The stages of `./check scale`, and their report.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace qx_scale {

inline constexpr std::int64_t kGiB = std::int64_t{1} << 30;

// Prints each result with the time since the start, and counts them.
class Report {
 public:
  void expect(bool holds, const char* fact) {
    ++(holds ? passed_ : failed_);
    std::printf("  %-6s %7.1f s  %s\n", holds ? "ok" : "FAILED", seconds(), fact);
    std::fflush(stdout);
  }
  void stage(const char* name) { std::printf("== %s\n", name); }

  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  std::int64_t passed() const { return passed_; }
  std::int64_t failed() const { return failed_; }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::int64_t passed_ = 0;
  std::int64_t failed_ = 0;
};

// Calls work(name) under every kernel that runs here.
void under_every_kernel(const std::function<void(const char*)>& work);

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
