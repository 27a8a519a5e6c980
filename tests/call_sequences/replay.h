// Prints a call sequence as a C program.
#pragma once

#include <string>

#include "call_sequences/call_sequence.h"

namespace qx_test {

// A C99 source that needs only the public header and a POSIX system: it makes exactly these calls,
// on arrays that begin or end at unmapped pages, and compares each answer with the model's. It
// exits with 0 if all are equal, and otherwise prints the calls that differ. `comment` is its
// opening comment.
std::string replay_source(const CallSequence& sequence, const std::string& comment);

}  // namespace qx_test
