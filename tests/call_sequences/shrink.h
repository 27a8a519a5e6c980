// Makes a call sequence that fails smaller, as long as it fails.
#pragma once

#include <functional>

#include "call_sequences/call_sequence.h"

namespace qx_test {

// The smallest call sequence found that still `fails`, starting from one that does. What is tried
// has always been made valid. Stops early after `seconds`.
CallSequence shrink(const CallSequence& sequence,
                    const std::function<bool(const CallSequence&)>& fails, int seconds);

}  // namespace qx_test
