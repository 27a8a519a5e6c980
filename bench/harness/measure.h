// What every figure is made of: named contestants that are timed in interleaved rounds. This file
// knows nothing of their work.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace bench {

// Makes the compiler believe that a result is needed.
template <typename T>
inline void consume(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

// What a contestant stands for in a comparison.
enum class Role {
  kEngine,    // the library's function, as a host calls it
  kKernel,    // the same work by a kernel that the CPU would not choose
  kLimit,     // the least that the hardware must do for the work; the fastest one counts
  kPeer,      // another program that does the same work; the fastest one counts
  kBaseline,  // the plain loop that a target names
};

struct Contestant {
  // `work` is what is timed; what it returns is consumed.
  template <typename Work>
  Contestant(std::string its_name, Role its_role, Work work, std::function<void()> first = {})
      : name(std::move(its_name)), role(its_role), before(std::move(first)) {
    if constexpr (std::is_void_v<decltype(work())>) {
      run = std::move(work);
    } else {
      run = [work = std::move(work)] { consume(work()); };
    }
  }

  std::string name;
  Role role;
  std::function<void()> run;
  std::function<void()> before;  // untimed, before each sample
  std::function<void()> after;   // untimed, after each sample
  bool single = false;           // one run needs one `before`, so a sample is one run
};

using Contestants = std::vector<Contestant>;

// A contestant that fills a new thing of its own in every sample.
template <typename Make, typename Fill>
Contestant filler(std::string name, Role role, Make make, Fill fill) {
  using Thing = decltype(make());
  const auto thing = std::make_shared<Thing>();
  Contestant made(std::move(name), role, [thing, fill] { fill(*thing); });
  made.before = [thing, make] { *thing = make(); };
  made.after = [thing] { *thing = Thing(); };
  made.single = true;
  return made;
}

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
std::vector<Timing> time_rounds(const Contestants& contestants, const Effort& effort);

// The middle sample; the mean of the two middle ones of an even number.
double median(std::vector<double> samples);

// Ends the benchmark with a line on standard error unless a precondition of fair measuring holds,
// such as that two contestants gave the same answer.
void require(bool holds, const std::string& what);

}  // namespace bench
