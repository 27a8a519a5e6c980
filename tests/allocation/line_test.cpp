// The line at the end of the process where standard error takes it in pieces, or stops taking it.
// The target makes the linker wrap write().
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "support/cases.h"
#include "support/heap.h"
#include "support/host_environment.h"

namespace qx_test {
namespace {

// What standard error does: a call takes at most most_taken bytes, and nothing once calls_left is
// 0; if `interrupts`, a signal interrupts each call first. The defaults are those of a plain
// descriptor.
std::size_t most_taken = SIZE_MAX;
int calls_left = INT32_MAX;
bool interrupts = false;
bool interrupted = false;
// The environment in which the line must be written.
const FpEnvironment* expected_environment = nullptr;

}  // namespace
}  // namespace qx_test

extern "C" {
ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  using namespace qx_test;
  if (descriptor != STDERR_FILENO) return __real_write(descriptor, bytes, size);
  if (expected_environment != nullptr) {
    const bool kept = FpEnvironment::current() == *expected_environment;
    return __real_write(descriptor, kept ? bytes : "another environment\n", kept ? size : 20);
  }
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

namespace qx_test {
namespace {

ChildEnd end_by_a_failed_allocation() {
  return run_in_child([] {
    alarm(60);
    with_failing_allocation(1, true, [] { qx_index_new(1, 0); });
  });
}

class Line : public testing::Test {
 protected:
  void TearDown() override {
    most_taken = SIZE_MAX;
    calls_left = INT32_MAX;
    interrupts = interrupted = false;
    expected_environment = nullptr;
  }
};

TEST_F(Line, IsWholeWhereItIsTakenInPiecesAlsoIfEachIsInterrupted) {
  for (const std::size_t size : {1u, 1u, 3u, 3u, 7u, 50u}) {
    most_taken = size;
    interrupts = !interrupts;
    const ChildEnd end = end_by_a_failed_allocation();
    EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
    EXPECT_TRUE(is_allocation_line(end.standard_error)) << end.standard_error;
  }
}

TEST_F(Line, EndsWhereNothingMoreIsTaken) {
  most_taken = 3;
  calls_left = 2;
  const ChildEnd end = end_by_a_failed_allocation();
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_EQ(end.standard_error, "ABORT:");
}

// Ends the process in a call that has computed before, in the environment of the host.
ChildEnd end_in(const FpEnvironment& host, const std::function<void()>& call) {
  return run_in_child([&] {
    host.set();
    const FpEnvironment set = FpEnvironment::current();
    expected_environment = &set;
    call();
  });
}

TEST_F(Line, IsWrittenInTheEnvironmentOfTheHost) {
  constexpr std::int32_t kDim = 16;
  const Floats vectors(std::size_t{4000} * kDim, 0x1.1p-70f);
  const Ids ids = ids_from(0, 4000);
  // The last 2000 ids are rows of a delta that is shorter than they are, by a build of twice their
  // dimension; and a list of an IVF that leaves its ids comes after one that does not.
  const Index index(kDim / 2);
  qx_index_insert(index, vectors.data(), ids.data() + 2000, 2000);
  qx_index_build(index, vectors.data(), 2000, kDim, ids.data(), nullptr, nullptr, nullptr, 0);
  const std::int32_t offsets[] = {0, 2000, 5000};
  qx_index_set_ivf(index, 1, 2, 2, vectors.data(), ids.data(), offsets, 4000);
  std::int64_t out[10];
  float scores[10];
  const float* const query = vectors.data();
  const std::function<void()> calls[] = {
      [&] { qx_index_search_mvcc(index, ids.data(), 4000, query, 10, out, scores); },
      [&] { qx_index_search_filtered(index, 0, 0, 0, query, 10, out, scores); },
      [&] { qx_index_search_ivf(index, 1, query, 10, out, scores); },
      [&] {
        with_failing_allocation(1, true,
                                [&] { qx_index_search_ivf(index, 1, query, 10, out, scores); });
      }};
  for (const FpEnvironment& host : fp_environments()) {
    for (const auto& call : calls) {
      const ChildEnd end = end_in(host, call);
      EXPECT_TRUE(end.trapped) << host.name << ", exit status " << end.exit_status;
      EXPECT_TRUE(end.standard_error.starts_with("At: engine/qx_runtime:") ||
                  is_allocation_line(end.standard_error))
          << host.name << ": " << end.standard_error;
    }
  }
}

}  // namespace
}  // namespace qx_test
