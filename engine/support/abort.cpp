#include "support/abort.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

namespace qx {
namespace {

// Longer than either line with every number at its widest.
constexpr std::size_t kLineBytes = 256;

// Writes to the descriptor itself: standard I/O would take the stream's lock, which a thread of the
// host may hold, and could leave the line in a buffer. If the descriptor takes nothing, the attempt
// ends and the trap follows. The signal of a pipe that nobody reads is ignored, since it would end
// the process before the trap.
void write_line(const char* line, int length) {
  std::signal(SIGPIPE, SIG_IGN);
  while (length > 0) {
    const ssize_t written = ::write(STDERR_FILENO, line, static_cast<std::size_t>(length));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    line += written;
    length -= static_cast<int>(written);
  }
}

}  // namespace

void abort_allocation(const char* file, SourceLocation location) {
  char line[kLineBytes];
  write_line(line, std::snprintf(line, sizeof line,
                                 "ABORT: %s:%u:%u: alloc failed: returned a null pointer\n", file,
                                 location.line, location.column));
  __builtin_trap();
}

void abort_index(std::int64_t index, std::int64_t length, SourceLocation location) {
  char line[kLineBytes];
  write_line(line, std::snprintf(line, sizeof line,
                                 "At: engine/qx_runtime:%u:%u: Assert Error: index %lld is out "
                                 "of bounds, valid range is 0 to %lld\n",
                                 location.line, location.column, static_cast<long long>(index),
                                 static_cast<long long>(length - 1)));
  __builtin_trap();
}

#if defined(QX_ASSERTIONS)
void abort_assertion(const char* condition, const char* file, int line) {
  char text[kLineBytes];
  write_line(text, std::snprintf(text, sizeof text, "%s:%d: not so: %s\n", file, line, condition));
  __builtin_trap();
}
#endif

}  // namespace qx
