// Plays a call sequence on the engine and compares every answer with the model's.
#pragma once

#include <array>
#include <map>
#include <string>

#include "call_sequences/call_sequence.h"
#include "cpus/digest.h"
#include "qx_runtime.h"
#include "support/guarded.h"

namespace qx_test {

// The number of calls of each function.
using CallCounts = std::map<std::string, std::int64_t>;

enum class UnderKernels { kAll, kChosen };

class Player {
 public:
  // `trace` prints every call to standard output. Reads are made under every kernel of this
  // machine, or only under the kernel that the engine chooses here.
  Player(UnderKernels kernels, bool trace) : kernels_(kernels), trace_(trace) {}
  ~Player() { qx_index_free(index_); }
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // Plays a call sequence. Returns a description of the first disagreement, empty if there is none.
  std::string play(const CallSequence& sequence);

  const CallCounts& calls() const { return calls_; }
  // True if a second build has replaced a base, whose arrays are then never released.
  bool rebuilt() const { return rebuilt_; }
  // The digest of everything that the calls returned and wrote.
  std::string digest() const { return digest_.text(); }
  // The number of calls whose answers were compared: all but those that create and release.
  std::int64_t compared() const { return compared_; }

 private:
  void perform(const Call& call);
  // The engine's answer.
  Answer ask(const Call& call);
  void compare(const Call& call, const Answer& expected);
  void expect_end(const Call& call, const Answer& expected);
  void place_outputs(const Call& call, const Answer& expected);
  void check(const Call& call, bool agrees, const char* what);

  UnderKernels kernels_;
  bool trace_;
  Model model_{0, 0};
  QxIndex* index_ = nullptr;
  bool ended_ = false;
  bool rebuilt_ = false;
  std::size_t step_ = 0;
  CallCounts calls_;
  std::int64_t compared_ = 0;
  std::string disagreement_;
  Digest digest_;

  std::tuple<Guarded<float>, Guarded<std::int64_t>, Guarded<std::int64_t>, Guarded<std::int64_t>,
             Guarded<std::int32_t>, Guarded<std::int32_t>>
      inputs_;
  std::tuple<Guarded<std::int64_t>, Guarded<float>, Guarded<std::int64_t>> outputs_;
  std::array<void*, kOutputs + 3> placed_{};  // the addresses of these arrays
};

}  // namespace qx_test
