// The ranks that share one index, and how they agree on an error.
//
// A rank that throws alone would leave the others waiting for it for ever. So what may fail runs
// inside `together` or `from_root`: all ranks learn of the first failure, and all throw the same.
// A failure travels in a block of fixed size, because memory may be what has run out.
#pragma once

#include <mpi.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <qx_runtime.hpp>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace qx {

enum class FailureKind : std::int32_t { kNone, kArgument, kLogic, kMemory, kOther };

struct Failure {
  FailureKind kind;
  char text[500];
};

// Memory that is not there, with the rank that lacks it.
class OutOfMemory : public std::bad_alloc {
 public:
  explicit OutOfMemory(const char* text);
  const char* what() const noexcept override { return text_; }

 private:
  char text_[sizeof(Failure::text)];
};

// What is being thrown, as a block that can be sent. To be called in a handler.
Failure current_failure();

// Throws what the block says; nothing for kNone.
void raise(const Failure& failure);

class Communicator {
 public:
  explicit Communicator(MPI_Comm ranks);
  ~Communicator();
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  MPI_Comm handle() const { return ranks_; }
  int rank() const { return rank_; }
  int size() const { return size_; }
  bool is_root() const { return rank_ == 0; }
  bool is_on_root_machine() const { return on_root_machine_; }

  // Runs a step on every rank. If it throws on any, every rank throws what the lowest of those
  // threw, with that rank's number before the message.
  template <typename Step>
  void together(Step&& step) const {
    Failure failure{};
    try {
      step();
    } catch (...) {
      failure = current_failure();
    }
    agree(failure);
  }

  // A block has this much before its contents, for the kind of a failure.
  static constexpr std::size_t kBlockHead = 8;

  // Runs a step on rank 0, which fills the contents of a block, and copies the block to every rank;
  // or throws on every rank what the step threw.
  template <typename Fill>
  void share_block(std::span<std::byte> block, Fill&& fill) const {
    Failure failure{};
    if (is_root()) {
      try {
        fill(block.subspan(kBlockHead));
      } catch (...) {
        failure = current_failure();
      }
      std::memcpy(block.data(), &failure.kind, sizeof failure.kind);
    }
    broadcast(block);
    std::memcpy(&failure.kind, block.data(), sizeof failure.kind);
    if (failure.kind == FailureKind::kNone) return;
    broadcast_bytes(&failure, sizeof failure, 0);
    raise(failure);
  }

  // Runs a step on every rank, but on one after the other of each machine, so that what the step
  // takes for a moment is taken once a machine. Throws as `together` does.
  template <typename Step>
  void in_turns(Step&& step) const {
    for (int turn = 0; turn < turns_; ++turn) {
      together([&] {
        if (turn == turn_) step();
      });
    }
  }

  // Runs a step on rank 0 and gives its result, or what it threw, to every rank.
  template <typename Make>
  auto from_root(Make&& make) const {
    using Value = std::invoke_result_t<Make>;
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value{};
    std::byte block[kBlockHead + sizeof value] = {};
    share_block(block, [&](std::span<std::byte> contents) {
      value = make();
      std::memcpy(contents.data(), &value, sizeof value);
    });
    std::memcpy(&value, block + kBlockHead, sizeof value);
    return value;
  }

  // Copies the numbers of one rank into the spans of all, which have one size.
  template <typename Number>
  void broadcast(std::span<Number> numbers, int root = 0) const {
    static_assert(std::is_trivially_copyable_v<Number>);
    broadcast_bytes(numbers.data(), numbers.size_bytes(), root);
  }

  // The numbers of one rank, on every rank.
  template <typename Number>
  std::vector<Number> shared(std::span<const Number> numbers, int root = 0) const {
    std::int64_t count = std::ssize(numbers);
    broadcast(std::span(&count, 1), root);
    std::vector<Number> copy;
    together([&] {
      copy.resize(static_cast<std::size_t>(count));
      if (rank_ == root) std::copy(numbers.begin(), numbers.end(), copy.begin());
    });
    broadcast(std::span(copy), root);
    return copy;
  }

  std::int64_t sum(std::int64_t number) const { return reduced(number, MPI_SUM); }
  std::int64_t least(std::int64_t number) const { return reduced(number, MPI_MIN); }
  std::int64_t most(std::int64_t number) const { return reduced(number, MPI_MAX); }
  // The sum over the ranks before this one.
  std::int64_t sum_before(std::int64_t number) const;

 private:
  void agree(const Failure& failure) const;
  void broadcast_bytes(void* bytes, std::size_t count, int root) const;
  std::int64_t reduced(std::int64_t number, MPI_Op operation) const;

  MPI_Comm ranks_ = MPI_COMM_NULL;
  int rank_ = 0;
  int size_ = 1;
  int turn_ = 0;   // of this rank, among those of its machine
  int turns_ = 1;  // the most ranks of a machine
  bool on_root_machine_ = true;
};

}  // namespace qx
