// The ranks that share one collection, and how they agree on an error.
//
// A rank that throws alone would leave the others waiting for it for ever. So what may fail runs
// inside `together` or `from_root`: all ranks learn of the first failure, and all throw the same.
#pragma once

#include <mpi.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace qx::mpi {

// A row or a count, where a container is asked.
inline std::size_t at(std::int64_t position) { return static_cast<std::size_t>(position); }

inline std::string text_of(const std::string& text) { return text; }
template <typename Number>
requires std::is_arithmetic_v<Number> std::string text_of(Number number) {
  return std::to_string(number);
}

// The parts make the message, only when it is needed.
template <typename Error = std::invalid_argument, typename... Parts>
void require(bool condition, const Parts&... parts) {
  if (!condition) throw Error((std::string() + ... + text_of(parts)));
}

// An exception of which a copy can be sent: of fixed size, because memory may be what has run out.
class Failure {
 public:
  Failure() = default;
  explicit Failure(const std::exception& error);
  bool is_none() const { return kind_ == Kind::kNone; }
  // Throws std::invalid_argument, std::logic_error, OutOfMemory or std::runtime_error.
  [[noreturn]] void raise() const;
  void name(int rank);  // before the message
  const char* text() const { return text_; }

 private:
  enum class Kind { kNone, kArgument, kLogic, kMemory, kOther };
  Kind kind_ = Kind::kNone;
  char text_[500] = "";
};

// Memory that is not there, with the rank that lacks it.
struct OutOfMemory : std::bad_alloc {
  explicit OutOfMemory(const Failure& failed) : failure(failed) {}
  const char* what() const noexcept override { return failure.text(); }
  Failure failure;
};

class Communicator {
 public:
  explicit Communicator(MPI_Comm ranks);  // which is duplicated
  ~Communicator() { MPI_Comm_free(&ranks_); }
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  MPI_Comm handle() const { return ranks_; }
  int rank() const { return rank_; }
  int size() const { return size_; }
  bool is_root() const { return rank_ == 0; }

  // Runs a step on every rank. If it throws on any, every rank throws what the lowest of those
  // threw, with that rank's number before the message.
  template <typename Step>
  void together(Step&& step) const {
    Failure failure;
    try {
      step();
    } catch (const std::exception& error) {
      failure = Failure(error);
    }
    agree(failure);
  }

  // Runs a step on rank 0 and gives its result, or what it threw, to every rank.
  template <typename Make>
  auto from_root(Make&& make) const {
    struct {
      bool is_made = true;
      std::invoke_result_t<Make> value{};
    } sent;
    static_assert(std::is_trivially_copyable_v<decltype(sent)>);
    Failure failure;
    try {
      if (is_root()) sent.value = make();
    } catch (const std::exception& error) {
      failure = Failure(error);
      sent.is_made = false;
    }
    broadcast(&sent, sizeof sent);
    if (sent.is_made) return sent.value;
    broadcast(&failure, sizeof failure);
    failure.raise();
  }

  // Copies bytes of rank 0, or of another, to all ranks.
  void broadcast(void* bytes, std::size_t count, int root = 0) const;

  // Rank 0's numbers, on every rank.
  template <typename Number>
  std::vector<Number> shared(std::span<const Number> numbers) const {
    const auto count = from_root([&] { return numbers.size(); });
    std::vector<Number> copy;
    together([&] {
      copy.resize(count);
      if (is_root()) std::ranges::copy(numbers, copy.begin());
    });
    broadcast(copy.data(), count * sizeof(Number));
    return copy;
  }

  std::int64_t reduced(std::int64_t number, MPI_Op operation) const;
  std::int64_t sum(std::int64_t number) const { return reduced(number, MPI_SUM); }

 private:
  void agree(Failure& failure) const;

  MPI_Comm ranks_ = MPI_COMM_NULL;
  int rank_ = 0;
  int size_ = 1;
};

}  // namespace qx::mpi
