// Runs a piece of code in a child process and reports how it ended, for calls that end the process.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace qx_test {

struct ChildEnd {
  bool trapped;                // ended by the signal of a trap instruction
  int exit_status;             // exit status when it ended by itself, else -1
  std::string standard_error;  // everything written there
};

// Forks, runs the body and exits with status 0 when the body returns.
ChildEnd run_in_child(const std::function<void()>& body);

// Under user-mode emulation the emulator adds a line of its own about the signal to what a child
// wrote to standard error. It is not the engine's; this removes it.
void remove_emulator_note(std::string* text);

// Whether a text is exactly the one line of a bounds failure, or of a failed allocation, ended by
// a newline and with nothing else around it. Any line and column number will do.
bool is_bounds_line(const std::string& text, std::int64_t index, std::int64_t length);
bool is_allocation_line(const std::string& text);

}  // namespace qx_test
