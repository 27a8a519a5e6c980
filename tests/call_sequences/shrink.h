// Makes a life that fails smaller, as long as it fails.
#pragma once

#include <functional>

#include "histories/life.h"

namespace qx_test {

// The smallest life found that still `fails`, starting from one that does. What is tried has always
// been made valid. Stops early after `seconds`.
Life shrink(const Life& life, const std::function<bool(const Life&)>& fails, int seconds);

}  // namespace qx_test
