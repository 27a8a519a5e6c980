// The limits of a build. Bases at the limits do not fit into a machine, so acceptance is shown by
// the next step of a build: it reads the ids, and then it allocates.
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLimit = std::int64_t{1} << 40;

struct Shape {
  std::int64_t n;
  std::int32_t dim;
};

enum class Verdict { kRejected, kReadsTheIds, kOther };

// The verdict on a shape, with ids of which none can be read: a rejected shape reads none.
Verdict verdict_on(std::int64_t n, std::int32_t dim) {
  static constexpr int kRejectedStatus = 41;
  static constexpr int kReadStatus = 42;
  const ChildEnd end = run_in_child([=] {
    std::signal(SIGSEGV, [](int) { _exit(kReadStatus); });
    const Index index(1);
    const Guarded<std::int64_t> ids;
    if (qx_index_build(index, nullptr, n, dim, ids.data(), nullptr, nullptr, nullptr, 0) == -1) {
      _exit(kRejectedStatus);
    }
  });
  if (end.exit_status == kRejectedStatus) return Verdict::kRejected;
  return end.exit_status == kReadStatus ? Verdict::kReadsTheIds : Verdict::kOther;
}

TEST(BuildLimits, TwoToTheFortyRowsAndElementsAreAccepted) {
  for (const auto& [n, dim] :
       {Shape{kLimit, 0}, {kLimit, 1}, {kLimit / 2, 2}, {1 << 10, 1 << 30}}) {
    EXPECT_EQ(verdict_on(n, dim), Verdict::kReadsTheIds) << n << " of " << dim;
  }
}

// The last ones have products that become small or negative when truncated to 64 bits.
TEST(BuildLimits, MoreRowsOrElementsAndNegativeCountsAreRejected) {
  for (const auto& [n, dim] : {Shape{kLimit + 1, 0},
                               {kLimit + 1, 1},
                               {kLimit / 2 + 1, 2},
                               {kLimit, 2},
                               {(1 << 10) + 1, 1 << 30},
                               {-1, 1},
                               {-1, 0},
                               {INT64_MIN, 1},
                               {INT64_MIN, 0},
                               {kLimit, 1 << 23},
                               {kLimit, 1 << 24},
                               {kLimit, 1 << 30},
                               {kLimit, INT32_MAX},
                               {kLimit / 2 + 1, 1 << 25}}) {
    EXPECT_EQ(verdict_on(n, dim), Verdict::kRejected) << n << " of " << dim;
  }
}

TEST(BuildLimits, ARejectedShapeIsNotRead) {
  const Index index(1);
  for (const std::int32_t dim : {2, INT32_MAX}) {
    EXPECT_EQ(qx_index_build(index, nullptr, kLimit, dim, nullptr, nullptr, nullptr, nullptr, 0),
              -1);
  }
}

constexpr int kNoLimitStatus = 43;

// Runs a build in an address space of 1 GiB. Skipped if that limit has no effect: the build would
// take the machine's memory.
ChildEnd end_in_small_address_space(const std::function<void()>& body) {
  return run_in_child([&] {
    const rlimit address_space{1u << 30, 1u << 30};
    const bool limited = setrlimit(RLIMIT_AS, &address_space) == 0 &&
                         mmap(nullptr, std::size_t{1} << 31, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS,
                              -1, 0) == MAP_FAILED;
    if (!limited) _exit(kNoLimitStatus);
    body();
  });
}

// An accepted build that the machine cannot hold; a rejected one would return.
void expect_accepted_beyond_memory(const std::function<void()>& body) {
#if defined(QX_TEST_ADDRESS_SANITIZER)
  GTEST_SKIP() << "the address sanitizer needs an unlimited address space";
#endif
  const ChildEnd end = end_in_small_address_space(body);
  if (end.exit_status == kNoLimitStatus) GTEST_SKIP() << "the address space cannot be limited here";
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_TRUE(is_allocation_line(end.standard_error)) << end.standard_error;
}

// The table of ids needs 8 TiB for it.
TEST(BuildLimits, TheLargestIdIsAcceptedWhereverItStands) {
  for (const Ids& ids : {Ids{QX_MAX_BASE_ID}, Ids{3, QX_MAX_BASE_ID, 4}}) {
    expect_accepted_beyond_memory([&] { build(Index(1), 0, ids, {}); });
  }
}

}  // namespace
}  // namespace qx_test
