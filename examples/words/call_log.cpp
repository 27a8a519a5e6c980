#include "call_log.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace {

const std::vector<double> kNone;

}  // namespace

void CallLog::record(std::string_view function, double nanoseconds) {
  last_ = {std::string(function), nanoseconds};
  times_[last_.function].push_back(nanoseconds);
  total_ += nanoseconds;
}

const std::vector<double>& CallLog::times(const std::string& function) const {
  const auto found = times_.find(function);
  return found == times_.end() ? kNone : found->second;
}

double sum(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}
