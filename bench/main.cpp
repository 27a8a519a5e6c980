// The benchmark: reads the options, runs the sections, writes what they measured to a file.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "harness/data.h"
#include "harness/results.h"
#include "harness/settings.h"
#include "kernels/kernels.h"
#include "peers/flat.h"
#include "sections/sections.h"

namespace bench {
namespace {

constexpr int kUsageStatus = 2;

struct Options {
  Settings settings;
  std::vector<const Section*> sections;  // empty for all
  std::string output;
};

[[noreturn]] void refuse(const std::string& why) {
  std::fprintf(stderr, "bench: %s\n", why.c_str());
  std::exit(kUsageStatus);
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
  for (const Section& section : kSections) std::printf("  %-11s %s\n", section.name, section.what);
  std::printf("kernels that run here, best first:\n  %s\n", kernel_names().c_str());
  std::exit(0);
}

const Section* find_section(const char* name) {
  for (const Section& section : kSections) {
    if (std::strcmp(section.name, name) == 0) return &section;
  }
  refuse(std::string("there is no section '") + name + "' (--list names them)");
}

void choose_kernel(Settings& settings, const char* name) {
  if (!qx::force_kernels(name)) {
    refuse(std::string("no kernel '") + name + "' runs here, only: " + kernel_names());
  }
  settings.kernel = name;
}

Options read_options(int count, char** arguments) {
  Options options;
  const auto value_of = [&](int i) -> const char* {
    if (i + 1 >= count) refuse(std::string(arguments[i]) + " needs a value");
    return arguments[i + 1];
  };
  for (int i = 1; i < count; ++i) {
    const std::string argument = arguments[i];
    if (argument == "--list") list();
    if (argument == "--quick") {
      options.settings.quick = true;
    } else if (argument == "--section") {
      options.sections.push_back(find_section(value_of(i++)));
    } else if (argument == "--kernel") {
      choose_kernel(options.settings, value_of(i++));
    } else if (argument == "--output") {
      options.output = value_of(i++);
    } else {
      refuse("unknown option '" + argument + "'");
    }
  }
  return options;
}

void run(Options& options) {
  if (options.output.empty()) refuse("--output FILE is needed");
  if (options.sections.empty()) {
    for (const Section& section : kSections) options.sections.push_back(&section);
  }
  use_one_thread();
  hold_scattered_pages();
  Results results(options.output);
  results.add_header({{"quick", std::int64_t{options.settings.quick}},
                      {"kernel", qx::kernels().name},
                      {"forced", std::int64_t{!options.settings.kernel.empty()}},
                      {"kernels", kernel_names()},
                      {"compiler", "g++ " __VERSION__},
                      {"rounds", std::int64_t{options.settings.effort().rounds}}});
  for (const Section* section : options.sections) {
    std::fprintf(stderr, "%s: %s\n", section->name, section->what);
    section->run(options.settings, results);
  }
}

}  // namespace
}  // namespace bench

int main(int count, char** arguments) {
  if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) {
    std::fprintf(stderr, "bench: this CPU has no AVX2 or no FMA, which the comparisons need\n");
    return 1;
  }
  bench::Options options = bench::read_options(count, arguments);
  bench::run(options);
  return 0;
}
