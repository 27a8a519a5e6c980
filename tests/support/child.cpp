#include "support/child.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace qx_test {
namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

[[noreturn]] void be_the_child(int error_descriptor, const std::function<void()>& body) {
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  for (const int trap : {SIGILL, SIGTRAP}) std::signal(trap, SIG_DFL);
  if (dup2(error_descriptor, STDERR_FILENO) < 0) _exit(125);
  close(error_descriptor);
  body();
  _exit(0);
}

}  // namespace

// Only the last line can come from the emulator.
void remove_emulator_note(std::string* text) {
  const std::size_t note = text->rfind("qemu: uncaught target signal");
  if (note != std::string::npos) text->erase(note);
}

ChildEnd run_in_child(const std::function<void()>& body) {
  std::fflush(nullptr);
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    close(ends[0]);
    be_the_child(ends[1], body);
  }
  close(ends[1]);
  ChildEnd end{false, -1, ""};
  char buffer[512];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;) {
    end.standard_error.append(buffer, static_cast<std::size_t>(got));
  }
  close(ends[0]);
  remove_emulator_note(&end.standard_error);
  int status = 0;
  if (waitpid(child, &status, 0) != child) fail("waitpid");
  if (WIFSIGNALED(status)) {
    end.trapped = WTERMSIG(status) == SIGILL || WTERMSIG(status) == SIGTRAP;
  } else {
    end.exit_status = WEXITSTATUS(status);
  }
  return end;
}

// Both checks read the numbers that may vary and rebuild the line from them, to compare all of it.

bool is_bounds_line(const std::string& text, std::int64_t index, std::int64_t length) {
  unsigned line = 0;
  unsigned column = 0;
  std::sscanf(text.c_str(), "At: engine/qx_runtime:%u:%u:", &line, &column);
  return line > 0 && column > 0 &&
         text == "At: engine/qx_runtime:" + std::to_string(line) + ":" + std::to_string(column) +
                     ": Assert Error: index " + std::to_string(index) +
                     " is out of bounds, valid range is 0 to " + std::to_string(length - 1) + "\n";
}

bool is_allocation_line(const std::string& text) {
  char file[100] = "";
  unsigned line = 0;
  unsigned column = 0;
  std::sscanf(text.c_str(), "ABORT: %99[^: \n]:%u:%u:", file, &line, &column);
  return file[0] != '\0' && line > 0 && column > 0 &&
         text == std::string("ABORT: ") + file + ":" + std::to_string(line) + ":" +
                     std::to_string(column) + ": alloc failed: returned a null pointer\n";
}

}  // namespace qx_test
