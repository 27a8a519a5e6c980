// A fuzz target: one function that takes bytes and must return. Each target is linked twice, with a
// fuzzer that makes up bytes, and with replay.cpp, which plays files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count);

namespace qx_test {

// Ends the process when the engine and the oracle disagree, which a fuzzer reports as a finding.
inline void require(bool agrees, const std::string& what) {
  if (agrees) return;
  std::fprintf(stderr, "disagreement: %s\n", what.c_str());
  std::abort();
}

}  // namespace qx_test
