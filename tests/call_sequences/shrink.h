// Makes a failing call sequence smaller.
#pragma once

#include <functional>

#include "call_sequences/call_sequence.h"

namespace qx_test {

// The smallest call sequence found that still `fails`, starting from one that does. Every attempt
// is repaired first. Stops early after `seconds`.
CallSequence shrink(const CallSequence& sequence,
                    const std::function<bool(const CallSequence&)>& fails, int seconds);

}  // namespace qx_test
