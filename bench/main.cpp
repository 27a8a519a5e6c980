// The benchmark: reads the options, runs the sections, writes what they measured to a file.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness/data.h"
#include "harness/run.h"
#include "kernels/kernels.h"
#include "peers/peers.h"
#include "sections/sections.h"

namespace bench {
namespace {

using Sections = std::vector<const Section*>;
const Sections kSections = {&kScan,       &kSets, &kCodes,  &kSearches,    &kGrid,   &kPages,
                            &kCandidates, &kWalk, &kMatch,  &kFiltered,    &kIvf,    &kTopk,
                            &kMutation,   &kKeys, &kHeader, &kEnvironment, &kReaders};

struct Options {
  bool quick = false;
  std::string kernel;
  std::string output;
  Sections sections;
};

[[noreturn]] void refuse(const std::string& why) {
  std::fprintf(stderr, "bench: %s\n", why.c_str());
  std::exit(2);
}

std::string kernel_names() {
  std::string names;
  for (const qx::Kernels* const* kernel = qx::all_kernels(); *kernel != nullptr; ++kernel) {
    if ((*kernel)->supported()) names += (names.empty() ? "" : ", ") + std::string((*kernel)->name);
  }
  return names;
}

[[noreturn]] void list() {
  std::puts("sections:");
  for (const Section* section : kSections)
    std::printf("  %-11s %s\n", section->name, section->what);
  std::printf("kernels that run here, best first:\n  %s\n", kernel_names().c_str());
  std::exit(0);
}

const Section* find_section(const std::string& name) {
  for (const Section* section : kSections) {
    if (section->name == name) return section;
  }
  refuse("there is no section '" + name + "' (--list names them)");
}

Options read_options(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string argument = arguments[i];
    const auto value = [&]() -> std::string {
      if (i + 1 == count) refuse(argument + " needs a value");
      return arguments[++i];
    };
    if (argument == "--list") {
      list();
    } else if (argument == "--quick") {
      options.quick = true;
    } else if (argument == "--section") {
      options.sections.push_back(find_section(value()));
    } else if (argument == "--kernel") {
      options.kernel = value();
    } else if (argument == "--output") {
      options.output = value();
    } else {
      refuse("unknown option '" + argument + "'");
    }
  }
  if (!options.kernel.empty() && !qx::force_kernels(options.kernel.c_str())) {
    refuse("no kernel '" + options.kernel + "' runs here, only: " + kernel_names());
  }
  if (options.output.empty()) refuse("--output FILE is needed");
  return options;
}

}  // namespace
}  // namespace bench

int main(int count, char** arguments) {
  if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) {
    std::fprintf(stderr, "bench: this CPU has no AVX2 or no FMA, which the comparisons need\n");
    return 1;
  }
  const bench::Options options = bench::read_options(count, arguments);
  bench::use_one_thread();
  bench::hold_scattered_pages();
  bench::Run run(options.quick, options.kernel, options.output);
  run.add_header(bench::kernel_names());
  for (const bench::Section* section :
       options.sections.empty() ? bench::kSections : options.sections) {
    std::fprintf(stderr, "%s: %s\n", section->name, section->what);
    run.begin(section->name);
    section->run(run);
  }
  return 0;
}
