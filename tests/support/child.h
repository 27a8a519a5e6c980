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

// A user-mode emulator adds a line about the signal to what a child wrote to standard error. This
// function removes it.
void remove_emulator_note(std::string* text);

// True if a text is exactly the line of a bounds failure, or of a failed allocation, and a newline.
// Any line and column number is accepted.
bool is_bounds_line(const std::string& text, std::int64_t index, std::int64_t length);
bool is_allocation_line(const std::string& text);

}  // namespace qx_test
