#include "harness/settings.h"

#include "kernels/kernels.h"

namespace bench {

void use_chosen_kernel(const Settings& settings) {
  const char* const name = settings.kernel.empty() ? nullptr : settings.kernel.c_str();
  require(qx::force_kernels(name), "the chosen kernel runs here");
}

void compare(const Settings& settings, Results& results, const Case& measured,
             const std::vector<Contestant>& contestants) {
  results.add(measured, time_rounds(contestants, settings.effort()));
}

}  // namespace bench
