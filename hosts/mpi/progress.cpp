#include "progress.hpp"

#include <mpi.h>

#include <algorithm>
#include <cstdio>

namespace qx {
namespace {

constexpr double kSeconds = 2;

}  // namespace

Progress::Progress(bool prints, std::string work)
    : prints_(prints), work_(std::move(work)), next_(MPI_Wtime() + kSeconds) {}

void Progress::at(std::int64_t done, std::int64_t total) {
  if (!prints_ || MPI_Wtime() < next_) return;
  next_ = MPI_Wtime() + kSeconds;
  const double share =
      static_cast<double>(done) / static_cast<double>(std::max<std::int64_t>(total, 1));
  std::fprintf(stderr, "%s: %.0f %%\n", work_.c_str(), 100 * share);
}

}  // namespace qx
