// A digest of 128 bits of everything that calls returned and wrote. It is computed from numbers,
// not from bytes in memory, so it does not depend on the byte order.
#pragma once

#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qx_test {

class Digest {
 public:
  // A number as its 64 bits, sign-extended.
  template <std::integral Number>
  void add(Number number) {
    const auto bits = static_cast<std::uint64_t>(number);
    low_ = std::rotl((low_ ^ bits) * 0x9E3779B97F4A7C15u, 29) + high_;
    high_ = std::rotl((high_ + bits) * 0xD6E8FEB86659FD93u, 31) ^ low_;
  }

  // The bits of a float, except that all NaNs count as one: the CPU chooses the bits of a NaN.
  void add(float number) {
    constexpr std::uint32_t kAnyNaN = 0x7FC00000;
    add(std::isnan(number) ? kAnyNaN : std::bit_cast<std::uint32_t>(number));
  }

  template <typename Element>
  void add(const std::vector<Element>& elements) {
    add(elements.size());
    for (const Element element : elements) add(element);
  }

  std::string text() const {
    char digits[33];
    std::snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(high_),
                  static_cast<unsigned long long>(low_));
    return digits;
  }

 private:
  std::uint64_t low_ = 0x243F6A8885A308D3;
  std::uint64_t high_ = 0x13198A2E03707344;
};

}  // namespace qx_test
