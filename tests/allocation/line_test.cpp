// The line at the end of the process where standard error takes it in pieces, or stops taking it.
// The target makes the linker wrap write().
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qx_runtime.h"
#include "support/child.h"
#include "support/heap.h"

namespace {

using qx_test::ChildEnd;

// What standard error does: takes so many bytes a call, and nothing after so many calls, each of
// which a signal interrupts first. The defaults are those of a plain descriptor.
std::size_t most_taken = SIZE_MAX;
int calls_left = INT32_MAX;
bool interrupts = false;
bool interrupted = false;

}  // namespace

extern "C" {
ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  if (descriptor != STDERR_FILENO) return __real_write(descriptor, bytes, size);
  if (interrupts) {
    interrupted = !interrupted;
    if (interrupted) {
      errno = EINTR;
      return -1;
    }
  }
  if (calls_left-- == 0) return 0;
  return __real_write(descriptor, bytes, std::min(size, most_taken));
}
}

namespace {

ChildEnd end_by_a_failed_allocation() {
  return qx_test::run_in_child([] {
    alarm(60);
    qx_test::with_failing_allocation(1, true, [] { qx_index_new(1, 0); });
  });
}

class Line : public testing::Test {
 protected:
  void TearDown() override {
    most_taken = SIZE_MAX;
    calls_left = INT32_MAX;
    interrupts = interrupted = false;
  }
};

TEST_F(Line, IsWholeWhereItIsTakenInPieces) {
  for (const std::size_t size : {1u, 2u, 7u, 50u}) {
    most_taken = size;
    const ChildEnd end = end_by_a_failed_allocation();
    EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
    EXPECT_TRUE(qx_test::is_allocation_line(end.standard_error)) << end.standard_error;
  }
}

TEST_F(Line, IsWholeWhereEveryPieceIsInterrupted) {
  most_taken = 3;
  interrupts = true;
  const ChildEnd end = end_by_a_failed_allocation();
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_TRUE(qx_test::is_allocation_line(end.standard_error)) << end.standard_error;
}

TEST_F(Line, EndsWhereNothingMoreIsTaken) {
  most_taken = 3;
  calls_left = 2;
  const ChildEnd end = end_by_a_failed_allocation();
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_EQ(end.standard_error, "ABORT:");
}

}  // namespace
