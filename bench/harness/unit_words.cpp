#include "harness/unit_words.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <span>

#include "words.h"

namespace bench {

UnitWords read_unit_words(const std::string& path) {
  const Words words = read_words(path);
  const auto dim = static_cast<std::size_t>(words.dim);
  UnitWords units{std::ssize(words.words), words.dim, Floats(std::ssize(words.vectors)),
                  Floats(kAskedWords * words.dim)};
  for (std::size_t at = 0; at < words.vectors.size(); at += dim) {
    const std::span<const float> word = std::span(words.vectors).subspan(at, dim);
    const double length =
        std::sqrt(std::inner_product(word.begin(), word.end(), word.begin(), 0.0));
    std::ranges::transform(word, units.vectors.data() + at,
                           [&](float value) { return static_cast<float>(value / length); });
  }
  for (std::int64_t i = 0; i < kAskedWords; ++i) {
    std::copy_n(units.vectors.data() + i * units.rows / kAskedWords * units.dim, units.dim,
                units.asked.data() + i * units.dim);
  }
  return units;
}

}  // namespace bench
