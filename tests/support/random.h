// Random choices. The same seed gives the same choices with every compiler and standard library, so
// that a seed is enough to replay a test. A fuzzer replaces the seed by bytes, which make the
// choices.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

namespace qx_test {

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}

  // Choices made by bytes, each by as few as it needs; after the last byte, by zeros.
  explicit Random(std::span<const std::uint8_t> bytes) : from_bytes_(true), bytes_(bytes) {}

  // True if there were bytes and all are used.
  bool exhausted() const { return from_bytes_ && bytes_.empty(); }

  // The source of choices for an array. Bytes choose the elements of short arrays one by one; for a
  // long one two bytes are a seed, or it would use up the bytes of a whole call sequence.
  Random& for_array(std::int64_t count) {
    if (!from_bytes_ || count <= kShortArray) return *this;
    array_ = std::make_unique<Random>(take(2));
    return *array_;
  }

  // 64 random bits, by the splitmix64 recurrence.
  std::uint64_t bits() {
    if (from_bytes_) return take(8);
    std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15u;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
  }

  // A number from low to high, both included.
  std::int64_t between(std::int64_t low, std::int64_t high) {
    const std::uint64_t span = static_cast<std::uint64_t>(high - low) + 1;
    const std::uint64_t chosen =
        from_bytes_ ? take((static_cast<std::size_t>(std::bit_width(span - 1)) + 7) / 8) : bits();
    // The range of all numbers has 2^64 values, which is 0 here.
    return low + static_cast<std::int64_t>(span == 0 ? chosen : chosen % span);
  }
  std::int32_t between32(std::int32_t low, std::int32_t high) {
    return static_cast<std::int32_t>(between(low, high));
  }

  bool percent(int chance) { return between(0, 99) < chance; }

  template <typename T>
  const T& any_of(const std::vector<T>& choices) {
    return choices[static_cast<std::size_t>(between(0, std::ssize(choices) - 1))];
  }

  template <typename T>
  void shuffle(std::vector<T>& values) {
    for (std::size_t i = values.size(); i > 1; --i) {
      std::swap(values[i - 1],
                values[static_cast<std::size_t>(between(0, static_cast<std::int64_t>(i) - 1))]);
    }
  }

 private:
  static constexpr std::int64_t kShortArray = 16;

  // A number of this many bytes, little-endian.
  std::uint64_t take(std::size_t count) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < count && !bytes_.empty(); ++i) {
      number |= std::uint64_t{bytes_.front()} << (8 * i);
      bytes_ = bytes_.subspan(1);
    }
    return number;
  }

  std::uint64_t state_ = 0;
  bool from_bytes_ = false;
  std::span<const std::uint8_t> bytes_;
  std::unique_ptr<Random> array_;
};

// The kinds of values that components are drawn from.
enum class Values { kTies, kSmooth, kSpecial, kBits, kMixed, kCancelling };

// Among others the score of an empty slot, -1e30, and the float just below it.
inline float special_float(Random& random) {
  using Limits = std::numeric_limits<float>;
  static const std::vector<float> choices = {0.0f,
                                             -0.0f,
                                             1.0f,
                                             -1.0f,
                                             1e30f,
                                             -1e30f,
                                             1e15f,
                                             -1e15f,
                                             std::bit_cast<float>(0xF149F2CBu),
                                             Limits::max(),
                                             -Limits::max(),
                                             Limits::min(),
                                             -Limits::min(),
                                             Limits::denorm_min(),
                                             -Limits::denorm_min(),
                                             1e-20f,
                                             -1e-20f,
                                             Limits::infinity(),
                                             -Limits::infinity(),
                                             Limits::quiet_NaN()};
  return random.any_of(choices);
}

inline float draw_float(Random& random, Values kind) {
  if (kind == Values::kMixed) kind = random.percent(20) ? Values::kSpecial : Values::kTies;
  switch (kind) {
    case Values::kTies:
      return static_cast<float>(random.between(-2, 2));
    case Values::kSmooth:
      return static_cast<float>(random.between(-(1 << 24), 1 << 24)) / (1 << 24);
    case Values::kSpecial:
      return special_float(random);
    case Values::kCancelling:  // see draw_floats()
      return draw_float(random, Values::kSmooth);
    default:
      return std::bit_cast<float>(static_cast<std::uint32_t>(random.bits()));
  }
}

inline std::vector<float> draw_floats(Random& random, Values kind, std::int64_t count) {
  std::vector<float> values;
  for (std::int64_t i = 0; i < count; ++i) values.push_back(draw_float(random, kind));
  if (kind != Values::kCancelling) return values;
  // Large components that cancel, two apart: the sum depends on the order of additions.
  for (std::size_t i = 2; i < values.size(); ++i) {
    if (!random.percent(10)) continue;
    values[i - 2] = random.percent(50) ? 0x1p+20f : -0x1p+20f;
    values[i] = -values[i - 2];
  }
  return values;
}

}  // namespace qx_test
