// Prints a call sequence as a program of its own.
#pragma once

#include <string>

#include "call_sequences/call_sequence.h"

namespace qx_test {

// A C99 source that needs the public header and a POSIX system: it makes exactly these calls, on
// arrays that lie against unmapped pages, and compares each answer with the model's. It exits with
// 0 where all agree, and otherwise prints the calls that do not. `comment` opens the file.
std::string replay_source(const CallSequence& sequence, const std::string& comment);

}  // namespace qx_test
