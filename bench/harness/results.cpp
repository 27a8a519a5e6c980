#include "harness/results.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

namespace bench {
namespace {

std::string quoted(const std::string& text) {
  std::string json = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') json += '\\';
    json += c;
  }
  return json + '"';
}

std::string number(double value) {
  if (!std::isfinite(value)) return "null";
  char text[40];
  std::snprintf(text, sizeof text, "%.9g", value);
  return text;
}

std::string value_json(const LabelValue& value) {
  if (const auto* whole = std::get_if<std::int64_t>(&value)) return std::to_string(*whole);
  if (const auto* real = std::get_if<double>(&value)) return number(*real);
  return quoted(std::get<std::string>(value));
}

std::string labels_json(const Labels& labels) {
  std::string json;
  for (const auto& [key, value] : labels) {
    json += (json.empty() ? "" : ", ") + quoted(key) + ": " + value_json(value);
  }
  return "{" + json + "}";
}

std::string case_json(const Case& measured) {
  return "{\"section\": " + quoted(measured.section) +
         ", \"labels\": " + labels_json(measured.labels) +
         ", \"bytes\": " + std::to_string(measured.bytes) +
         ", \"items\": " + std::to_string(measured.items);
}

std::string timing_json(const Timing& timing) {
  const auto [least, most] = std::minmax_element(timing.seconds.begin(), timing.seconds.end());
  return "{\"name\": " + quoted(timing.name) +
         ", \"role\": " + quoted(std::string(role_name(timing.role))) +
         ", \"median\": " + number(median(timing.seconds)) + ", \"min\": " + number(*least) +
         ", \"max\": " + number(*most) + ", \"samples\": " + std::to_string(timing.seconds.size()) +
         "}";
}

std::string plain(const Labels& labels) {
  std::string text;
  for (const auto& [key, value] : labels) {
    const auto* words = std::get_if<std::string>(&value);
    text += " " + key + "=" + (words != nullptr ? *words : value_json(value));
  }
  return text;
}

// How the engine did, in multiples of what the role's fastest contestant needs.
std::string standing(const std::vector<Timing>& timings, Role role, const char* word) {
  const double ratio = best_median(timings, role) / best_median(timings, Role::kEngine);
  if (!std::isfinite(ratio)) return "";
  char text[60];
  std::snprintf(text, sizeof text, "  %s %.2f", word, ratio);
  return text;
}

}  // namespace

Results::Results(const std::string& path) : file_(std::fopen(path.c_str(), "w")) {
  if (file_ != nullptr) return;
  std::fprintf(stderr, "bench: cannot write %s\n", path.c_str());
  std::exit(1);
}

Results::~Results() { std::fclose(file_); }

void Results::write_line(const std::string& line) {
  const bool written = std::fputs((line + "\n").c_str(), file_) >= 0 && std::fflush(file_) == 0;
  require(written, "the results are written to their file");
}

void Results::add_header(const Labels& labels) {
  write_line("{\"run\": " + labels_json(labels) + "}");
}

void Results::add(const Case& measured, const std::vector<Timing>& timings) {
  std::string times;
  for (const Timing& timing : timings) {
    times += (times.empty() ? "" : ", ") + timing_json(timing);
  }
  write_line(case_json(measured) + ", \"times\": [" + times + "]}");
  std::fprintf(stderr, "  %-64s%s%s%s\n", plain(measured.labels).c_str(),
               standing(timings, Role::kLimit, "of limit").c_str(),
               standing(timings, Role::kPeer, "x peer").c_str(),
               standing(timings, Role::kBaseline, "x baseline").c_str());
}

void Results::add_figure(const Case& measured, const std::string& name, double value) {
  write_line(case_json(measured) + ", \"figures\": {" + quoted(name) + ": " + number(value) + "}}");
  std::fprintf(stderr, "  %-64s  %s %.2f\n", plain(measured.labels).c_str(), name.c_str(), value);
}

}  // namespace bench
