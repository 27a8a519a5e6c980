#include "communicator.hpp"

#include <cstdio>

namespace qx::mpi {

Failure::Failure(const std::exception& error) : kind_(Kind::kOther) {
  if (dynamic_cast<const std::logic_error*>(&error) != nullptr) kind_ = Kind::kLogic;
  if (dynamic_cast<const std::invalid_argument*>(&error) != nullptr) kind_ = Kind::kArgument;
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) kind_ = Kind::kMemory;
  std::snprintf(text_, sizeof text_, "%s", kind_ == Kind::kMemory ? "out of memory" : error.what());
}

void Failure::raise() const {
  if (kind_ == Kind::kArgument) throw std::invalid_argument(text_);
  if (kind_ == Kind::kLogic) throw std::logic_error(text_);
  if (kind_ == Kind::kMemory) throw OutOfMemory(*this);
  throw std::runtime_error(text_);
}

void Failure::name(int rank) {
  const Failure unnamed = *this;
  std::snprintf(text_, sizeof text_, "rank %d: %.480s", rank, unnamed.text_);
}

Communicator::Communicator(MPI_Comm ranks) {
  MPI_Comm_dup(ranks, &ranks_);
  MPI_Comm_rank(ranks_, &rank_);
  MPI_Comm_size(ranks_, &size_);
}

void Communicator::agree(Failure& failure) const {
  const auto first = static_cast<int>(reduced(failure.is_none() ? size_ : rank_, MPI_MIN));
  if (first == size_) return;
  failure.name(rank_);
  broadcast(&failure, sizeof failure, first);
  failure.raise();
}

void Communicator::broadcast(void* bytes, std::size_t count, int root) const {
  constexpr std::size_t kMost = std::size_t{1} << 30;  // MPI counts in int
  for (std::size_t first = 0; first < count; first += kMost) {
    const auto part = static_cast<int>(std::min(kMost, count - first));
    MPI_Bcast(static_cast<char*>(bytes) + first, part, MPI_BYTE, root, ranks_);
  }
}

std::int64_t Communicator::reduced(std::int64_t number, MPI_Op operation) const {
  std::int64_t result = 0;
  MPI_Allreduce(&number, &result, 1, MPI_INT64_T, operation, ranks_);
  return result;
}

}  // namespace qx::mpi
