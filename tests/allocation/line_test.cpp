// The line at the end of the process where standard error takes it in pieces, or stops taking it.
// The target makes the linker wrap write().
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <numeric>
#include <vector>

#include "qx_runtime.h"
#include "support/child.h"
#include "support/heap.h"
#include "support/host_environment.h"

namespace {

using qx_test::ChildEnd;

// What standard error does: a call takes at most most_taken bytes, and nothing once calls_left is
// 0; if `interrupts`, a signal interrupts each call first. The defaults are those of a plain
// descriptor.
std::size_t most_taken = SIZE_MAX;
int calls_left = INT32_MAX;
bool interrupts = false;
bool interrupted = false;
// The environment in which the line must be written.
const qx_test::FpEnvironment* expected_environment = nullptr;

}  // namespace

extern "C" {
ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  if (descriptor != STDERR_FILENO) return __real_write(descriptor, bytes, size);
  if (expected_environment != nullptr) {
    const bool kept = qx_test::FpEnvironment::current() == *expected_environment;
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
    expected_environment = nullptr;
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

// Ends the process in a call that has computed before, in the environment of the host.
ChildEnd end_in(const qx_test::FpEnvironment& host, const std::function<void()>& call) {
  return qx_test::run_in_child([&] {
    host.set();
    const qx_test::FpEnvironment set = qx_test::FpEnvironment::current();
    expected_environment = &set;
    call();
  });
}

TEST_F(Line, IsWrittenInTheEnvironmentOfTheHost) {
  constexpr std::int32_t kDim = 16;
  const std::vector<float> vectors(4000 * kDim, 0x1.1p-70f);
  std::vector<std::int64_t> ids(4000);
  std::iota(ids.begin(), ids.end(), 0);
  // The last 2000 ids are rows of a delta that is shorter than they are, by a build of twice their
  // dimension; and a list of an IVF that leaves its ids comes after one that does not.
  QxIndex* const index = qx_index_new(kDim / 2, 0);
  qx_index_insert(index, vectors.data(), ids.data() + 2000, 2000);
  qx_index_build(index, vectors.data(), 2000, kDim, ids.data(), nullptr, nullptr, nullptr, 0);
  const std::int32_t offsets[] = {0, 2000, 5000};
  qx_index_set_ivf(index, 1, 2, 2, vectors.data(), ids.data(), offsets, 4000);
  std::vector<std::int64_t> out_ids(10);
  std::vector<float> scores(10);
  const float* const query = vectors.data();
  const std::function<void()> calls[] = {
      [&] {
        qx_index_search_mvcc(index, ids.data(), 4000, query, 10, out_ids.data(), scores.data());
      },
      [&] { qx_index_search_filtered(index, 0, 0, 0, query, 10, out_ids.data(), scores.data()); },
      [&] { qx_index_search_ivf(index, 1, query, 10, out_ids.data(), scores.data()); },
      [&] {
        qx_test::with_failing_allocation(1, true, [&] {
          qx_index_search_ivf(index, 1, query, 10, out_ids.data(), scores.data());
        });
      }};
  for (const qx_test::FpEnvironment& host : qx_test::fp_environments()) {
    for (const auto& call : calls) {
      const ChildEnd end = end_in(host, call);
      EXPECT_TRUE(end.trapped) << host.name << ", exit status " << end.exit_status;
      EXPECT_TRUE(end.standard_error.starts_with("At: engine/qx_runtime:") ||
                  qx_test::is_allocation_line(end.standard_error))
          << host.name << ": " << end.standard_error;
    }
  }
  qx_index_free(index);
}

}  // namespace
