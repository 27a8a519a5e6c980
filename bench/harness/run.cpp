#include "harness/run.h"

#include <algorithm>
#include <limits>

#include "kernels/kernels.h"
#include "read/pruner.h"

namespace bench {
namespace {

constexpr const char* kRoles[] = {"engine", "kernel", "limit", "peer", "baseline"};

template <typename... Values>
std::string text(const char* format, Values... values) {
  char written[80];
  std::snprintf(written, sizeof written, format, values...);
  return written;
}

std::string quoted(const std::string& words) {
  std::string inside = "\"";
  for (const char c : words) {
    if (c == '"' || c == '\\') inside += '\\';
    inside += c;
  }
  return inside + '"';
}

std::string number(double value) { return text("%.9g", value); }

std::string plain(const LabelValue& value) {
  if (const auto* whole = std::get_if<std::int64_t>(&value)) return std::to_string(*whole);
  if (const auto* real = std::get_if<double>(&value)) return number(*real);
  return std::get<std::string>(value);
}

std::string json(const Labels& labels) {
  std::string list;
  for (const auto& [key, value] : labels) {
    const bool words = std::holds_alternative<std::string>(value);
    list += (list.empty() ? "" : ", ") + quoted(key) + ": " +
            (words ? quoted(plain(value)) : plain(value));
  }
  return "{" + list + "}";
}

std::string json(const Timing& timing) {
  const auto [least, most] = std::minmax_element(timing.seconds.begin(), timing.seconds.end());
  return "{\"name\": " + quoted(timing.name) +
         ", \"role\": " + quoted(kRoles[static_cast<int>(timing.role)]) +
         ", \"median\": " + number(median(timing.seconds)) + ", \"min\": " + number(*least) +
         ", \"max\": " + number(*most) + ", \"samples\": " + std::to_string(timing.seconds.size()) +
         "}";
}

// The median of the fastest contestant of a role; infinity if there is none.
double best_median(const std::vector<Timing>& timings, Role role) {
  double best = std::numeric_limits<double>::infinity();
  for (const Timing& timing : timings) {
    if (timing.role == role) best = std::min(best, median(timing.seconds));
  }
  return best;
}

// How the engine did, in multiples of what the fastest contestant of each role needs.
std::string standing(const std::vector<Timing>& timings) {
  std::string words;
  const double engine = best_median(timings, Role::kEngine);
  for (const auto& [role, name] :
       {std::pair(Role::kLimit, "of limit"), std::pair(Role::kPeer, "x peer"),
        std::pair(Role::kBaseline, "x baseline")}) {
    const double best = best_median(timings, role);
    if (best < std::numeric_limits<double>::infinity())
      words += text("  %s %.2f", name, best / engine);
  }
  return words;
}

}  // namespace

Run::Run(bool quick, std::string kernel, const std::string& path)
    : quick_(quick), kernel_(std::move(kernel)), file_(std::fopen(path.c_str(), "w")) {
  require(file_ != nullptr, path + " can be written");
}

void Run::use_chosen_kernel() const {
  require(qx::force_kernels(kernel_.empty() ? nullptr : kernel_.c_str()),
          "the chosen kernel runs here");
  require(qx::force_judge(nullptr), "each scan chooses its judges");
}

void Run::write_line(const std::string& line) {
  const bool written = std::fputs((line + "\n").c_str(), file_) >= 0 && std::fflush(file_) == 0;
  require(written, "the results are written to their file");
}

void Run::add_header(const std::string& kernels) {
  write_line("{\"run\": " +
             json({{"quick", std::int64_t{quick_}},
                   {"kernel", qx::kernels().name},
                   {"forced", std::int64_t{!kernel_.empty()}},
                   {"kernels", kernels},
                   {"compiler", "g++ " __VERSION__},
                   {"rounds", std::int64_t{effort().rounds}}}) +
             "}");
}

void Run::write(const Labels& labels, std::int64_t bytes, std::int64_t items,
                const std::string& what, const std::string& standing) {
  write_line("{\"section\": " + quoted(section_) + ", \"labels\": " + json(labels) +
             ", \"bytes\": " + std::to_string(bytes) + ", \"items\": " + std::to_string(items) +
             ", " + what + "}");
  std::string words;
  for (const auto& [key, value] : labels) words += " " + key + "=" + plain(value);
  std::fprintf(stderr, "  %-64s%s\n", words.c_str(), standing.c_str());
}

void Run::add(const Labels& labels, std::int64_t bytes, std::int64_t items,
              const std::vector<Timing>& timings) {
  std::string times;
  for (const Timing& timing : timings) times += (times.empty() ? "" : ", ") + json(timing);
  write(labels, bytes, items, "\"times\": [" + times + "]", standing(timings));
}

void Run::add_figure(const Labels& labels, std::int64_t items, const std::string& name,
                     double value) {
  write(labels, 0, items, "\"figures\": {" + quoted(name) + ": " + number(value) + "}",
        text("  %s %.2f", name.c_str(), value));
}

}  // namespace bench
