// What every figure is made of: named contestants that are timed in interleaved rounds. This file
// knows nothing of their work.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// What a contestant stands for in a comparison.
enum class Role {
  kEngine,    // the library's function, as a host calls it
  kKernel,    // the same work by a kernel that the CPU would not choose
  kLimit,     // the least that the hardware must do for the work; the fastest one counts
  kPeer,      // another program that does the same work; the fastest one counts
  kBaseline,  // the plain loop that a target names
};

struct Contestant {
  std::string name;
  Role role;
  std::function<void()> run;          // what is timed
  std::function<void()> before = {};  // untimed, before each sample
  std::function<void()> after = {};   // untimed, after each sample
  bool single = false;                // one run needs one `before`, so a sample is one run
};

// The samples of one contestant, in seconds for one run, in the order of the rounds.
struct Timing {
  std::string name;
  Role role;
  std::vector<double> seconds;
};

struct Effort {
  int rounds;             // samples of each contestant that stays within the budget
  double sample_seconds;  // a sample repeats a short run until it lasts this long
  double budget_seconds;  // a contestant that would exceed it gives fewer samples, at least three
};

// Times all contestants: in every round each gives one sample, and the next round starts with
// another one. So a slow moment of the machine meets them all, and nobody has a fixed neighbour.
std::vector<Timing> time_rounds(const std::vector<Contestant>& contestants, const Effort& effort);

// The middle sample; the mean of the two middle ones of an even number.
double median(std::vector<double> samples);

// The median of the fastest contestant of a role; infinity if the role is not taken.
double best_median(const std::vector<Timing>& timings, Role role);

std::string_view role_name(Role role);

// Makes the compiler believe that a result is needed.
template <typename T>
inline void consume(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

// Ends the benchmark with a line on standard error unless a precondition of fair measuring holds,
// such as that two contestants gave the same answer.
void require(bool holds, const std::string& what);

}  // namespace bench
