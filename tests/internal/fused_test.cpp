// The fused step in doubles against the C library's, to the bit.
#include "kernels/fused.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "support/random.h"

namespace {

using qx_test::Random;

std::uint32_t bits(float number) { return std::bit_cast<std::uint32_t>(number); }

// In both lanes, beside another step.
void expect_fused(float a, float b, float c) {
  using Two = qx::TwoDoubles;
  const float expected = std::fma(a, b, c);
  const Two first = qx::fused(Two{a, 3.0}, Two{b, 5.0}, Two{c, 7.0});
  const Two second = qx::fused(Two{3.0, a}, Two{5.0, b}, Two{7.0, c});
  for (const double found : {first[0], second[1]}) {
    const auto rounded = static_cast<float>(found);
    ASSERT_TRUE(std::isnan(expected) ? std::isnan(rounded) : bits(rounded) == bits(expected))
        << std::hexfloat << a << " * " << b << " + " << c << " is " << expected << ", not "
        << rounded;
  }
  ASSERT_EQ(first[1], 22.0);
  ASSERT_EQ(second[0], 22.0);
}

bool rounds_twice(float a, float b, float c) {
  const auto twice =
      static_cast<float>(static_cast<double>(a) * static_cast<double>(b) + static_cast<double>(c));
  return !std::isnan(twice) && bits(twice) != bits(std::fma(a, b, c));
}

TEST(Fused, AgreesForEveryTripleOfExtremes) {
  using Limits = std::numeric_limits<float>;
  std::vector<float> numbers = {Limits::quiet_NaN()};
  for (const float size : {0.0f,
                           Limits::denorm_min(),
                           0x1p-148f,
                           0x1.fffffcp-127f,
                           Limits::min(),
                           0x1.000002p-126f,
                           0x1p-75f,
                           0x1.fffffep-64f,
                           0x1.000002p-63f,
                           0x1p-24f,
                           0x1.000002p-24f,
                           0x1p-12f,
                           0x1.fffffep-1f,
                           1.0f,
                           0x1.000002p0f,
                           0x1.001p0f,
                           0x1p23f,
                           0x1.fffffep23f,
                           0x1p63f,
                           0x1.fffffep63f,
                           0x1p64f,
                           0x1p127f,
                           Limits::max(),
                           Limits::infinity()}) {
    numbers.push_back(size);
    numbers.push_back(-size);
  }
  for (const float a : numbers) {
    for (const float b : numbers) {
      for (const float c : numbers) ASSERT_NO_FATAL_FAILURE(expect_fused(a, b, c));
    }
  }
}

TEST(Fused, AgreesForMillionsOfRandomBits) {
  Random random(1);
  for (int i = 0; i < 3'000'000; ++i) {
    const auto draw = [&] {
      return std::bit_cast<float>(static_cast<std::uint32_t>(random.bits()));
    };
    ASSERT_NO_FATAL_FAILURE(expect_fused(draw(), draw(), draw()));
  }
}

// Sums a hair beside the middle between two floats: the product is half a unit of c's last place,
// or of the smallest subnormal's, and a little less. Many of them are wrong if rounded twice.
TEST(Fused, AgreesBesideTheMiddleOfTwoFloats) {
  Random random(2);
  int hard = 0;
  for (int i = 0; i < 1'000'000; ++i) {
    const int exponent = random.between32(-149, 100);
    const auto digits = static_cast<float>(random.between32(1, (1 << 24) - 1));
    const float c = std::ldexp(random.percent(50) ? digits : -digits, exponent);
    const float small = std::ldexp(1.0f, -random.between32(10, 23));
    const float a = 1.0f + small;
    const float b = std::ldexp((random.percent(50) ? 1.0f : -1.0f) * (1.0f - small), exponent / 2);
    const float far = std::ldexp(1.0f, exponent - exponent / 2 - 1);
    ASSERT_NO_FATAL_FAILURE(expect_fused(a * far, b, c));
    hard += rounds_twice(a * far, b, c) ? 1 : 0;
  }
  EXPECT_GT(hard, 10'000);
}

}  // namespace
