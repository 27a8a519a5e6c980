#include "communicator.hpp"

#include <algorithm>
#include <cstdio>
#include <new>

namespace qx {
namespace {

Failure failure_of(FailureKind kind, const char* text) {
  Failure failure{kind, {}};
  std::snprintf(failure.text, sizeof failure.text, "%s", text);
  return failure;
}

}  // namespace

OutOfMemory::OutOfMemory(const char* text) { std::snprintf(text_, sizeof text_, "%s", text); }

Failure current_failure() {
  try {
    throw;
  } catch (const InvalidArgument& error) {
    return failure_of(FailureKind::kArgument, error.what());
  } catch (const LogicError& error) {
    return failure_of(FailureKind::kLogic, error.what());
  } catch (const std::bad_alloc&) {
    return failure_of(FailureKind::kMemory, "out of memory");
  } catch (const std::exception& error) {
    return failure_of(FailureKind::kOther, error.what());
  } catch (...) {
    return failure_of(FailureKind::kOther, "an unknown error");
  }
}

void raise(const Failure& failure) {
  switch (failure.kind) {
    case FailureKind::kNone:
      return;
    case FailureKind::kArgument:
      throw InvalidArgument(failure.text);
    case FailureKind::kLogic:
      throw LogicError(failure.text);
    case FailureKind::kMemory:
      throw OutOfMemory(failure.text);
    case FailureKind::kOther:
      break;
  }
  throw std::runtime_error(failure.text);
}

Communicator::Communicator(MPI_Comm ranks) {
  MPI_Comm_dup(ranks, &ranks_);
  MPI_Comm_rank(ranks_, &rank_);
  MPI_Comm_size(ranks_, &size_);
  MPI_Comm machine = MPI_COMM_NULL;  // the ranks that share this rank's memory
  MPI_Comm_split_type(ranks_, MPI_COMM_TYPE_SHARED, rank_, MPI_INFO_NULL, &machine);
  MPI_Comm_rank(machine, &turn_);
  int lowest = rank_;
  MPI_Allreduce(MPI_IN_PLACE, &lowest, 1, MPI_INT, MPI_MIN, machine);
  on_root_machine_ = lowest == 0;
  MPI_Comm_free(&machine);
  turns_ = static_cast<int>(most(turn_ + 1));
}

Communicator::~Communicator() { MPI_Comm_free(&ranks_); }

std::int64_t Communicator::sum_before(std::int64_t number) const {
  std::int64_t before = 0;
  MPI_Exscan(&number, &before, 1, MPI_INT64_T, MPI_SUM, ranks_);
  return rank_ == 0 ? 0 : before;  // MPI leaves rank 0's undefined
}

void Communicator::agree(const Failure& failure) const {
  const bool failed = failure.kind != FailureKind::kNone;
  const auto first = static_cast<int>(least(failed ? rank_ : size_));
  if (first == size_) return;
  Failure named = failure;
  std::snprintf(named.text, sizeof named.text, "rank %d: %.480s", rank_, failure.text);
  broadcast_bytes(&named, sizeof named, first);
  raise(named);
}

void Communicator::broadcast_bytes(void* bytes, std::size_t count, int root) const {
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

}  // namespace qx
