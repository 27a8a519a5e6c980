// The end of the process, wherever host data can cause it: exactly one line, then the trap, even if
// standard error cannot be written.
#include <fcntl.h>
#include <unistd.h>

#include "support/cases.h"

namespace qx_test {
namespace {

// Delta rows 11, 12, 13 of dimension 2 (six floats) and two centroids of it (four), read under
// another dimension.
class Rebuilt : public Index {
 public:
  explicit Rebuilt(std::int32_t dim) : Index(2) {
    insert(*this, {11, 12, 13}, {1, 2, 3, 4, 5, 6});
    set_rowmeta(*this, {11, 12, 13}, {1, 2, 3}, {}, 0);
    set_ivf(*this, 7, {2, 1, {1, 2, 3, 4}, {5, 6}, {0, 1, 2}});
    seal(*this, dim, {5, 6}, Floats(2 * static_cast<std::size_t>(dim), 1));
  }
};

// The same of dimension 0, where nothing is stored, read under dimension 2.
class RebuiltFromZero : public Index {
 public:
  RebuiltFromZero() : Index(0) {
    insert(*this, {11}, {});
    set_ivf(*this, 7, {1, 1, {}, {5}, {0, 1}});
    seal(*this, 2, {5}, {1, 2});
  }
};

const Ids kTwoRows{11, 12};
const Floats kTwo(2, 1);
const Floats kThree(3, 1);
const Floats kFour(4, 1);

// A call that ends the process, and the numbers in its line.
struct End {
  std::string name;
  std::int64_t index;
  std::int64_t length;
  void (*call)();
};

void PrintTo(const End& end, std::ostream* out) { *out << end.name; }

void search_without_probes() {
  const Rebuilt index(3);
  qx_index_set_ivf_nprobe(index, 7, 0);
  search_ivf(index, 7, kThree, 1);
}

// One list of the ids, with these offsets.
void search_list(std::int32_t begin, std::int32_t end, const Ids& ids = kTwoRows) {
  const Sealed index(1, {11, 12}, {1, 2});
  set_ivf(index, 7, {1, 1, {1}, ids, {begin, end}});
  search_ivf(index, 7, kOne, 1);
}

void search_second_list() {
  const Sealed index(1, {11, 12}, {1, 2});
  set_ivf(index, 7, {2, 2, {2, 1}, {11, 12}, {0, 1, 9}});
  search_ivf(index, 7, kOne, 1);
}

const std::vector<End> kEnds = {
    {"SearchOfARowThatStartsAtTheEnd", 6, 6, [] { search_mvcc(Rebuilt(3), {13}, kThree, 1); }},
    {"SearchOfARowThatStartsPastTheEnd", 8, 6, [] { search_mvcc(Rebuilt(4), {13}, kFour, 1); }},
    {"SearchOfARowThatLeavesTheEnd", 6, 6, [] { search_mvcc(Rebuilt(4), {12}, kFour, 1); }},
    {"SearchOfASecondRow", 6, 6, [] { search_mvcc(Rebuilt(4), kTwoRows, kFour, 1); }},
    {"SearchOfNoFloats", 0, 0, [] { search_mvcc(RebuiltFromZero(), {11}, kTwo, 1); }},
    {"FilteredSearch", 6, 6, [] { search_filtered(Rebuilt(4), kEveryId, kFour, 1); }},
    {"LabelledRowLeaves", 6, 6, [] { search_filtered(Rebuilt(4), has_label(2), kFour, 1); }},
    {"LabelledRowStarts", 8, 6, [] { search_filtered(Rebuilt(4), has_label(3), kFour, 1); }},
    {"ExportOfARowThatStartsAtTheEnd", 6, 6, [] { export_visible(Rebuilt(3)); }},
    {"ExportOfARowThatLeavesTheEnd", 6, 6, [] { export_visible(Rebuilt(4)); }},
    {"ExportOfNoFloats", 0, 0, [] { export_visible(RebuiltFromZero()); }},
    {"OverwritingARowThatStartsAtTheEnd", 6, 6, [] { insert(Rebuilt(3), {13}, kThree); }},
    {"OverwritingARowThatStartsPastTheEnd", 8, 6, [] { insert(Rebuilt(4), {13}, kFour); }},
    {"OverwritingARowThatLeavesTheEnd", 6, 6, [] { insert(Rebuilt(4), {12}, kFour); }},
    {"SearchOfCentroids", 4, 4, [] { search_ivf(Rebuilt(3), 7, kThree, 1); }},
    {"SearchOfCentroidsWhollyOutside", 4, 4, [] { search_ivf(Rebuilt(5), 7, Floats(5, 1), 1); }},
    {"SearchOfCentroidsWithoutProbes", 4, 4, search_without_probes},
    {"SearchOfNoCentroids", 0, 0, [] { search_ivf(RebuiltFromZero(), 7, kTwo, 1); }},
    {"OffsetsThatEndBehindTheIds", 2, 2, [] { search_list(0, 3); }},
    {"OffsetsThatEndFarBehindTheIds", 2, 2, [] { search_list(1, kHighest); }},
    {"OffsetsThatStartBehindTheIds", 9, 2, [] { search_list(9, 10); }},
    {"OffsetsThatStartBeforeTheIds", -1, 2, [] { search_list(-1, 2); }},
    {"OffsetsOfNoIds", 0, 0, [] { search_list(0, 1, {}); }},
    {"OffsetsOfASecondList", 2, 2, search_second_list},
    {"TheLargestOffset", kHighest - 1, 2, [] { search_list(kHighest - 1, kHighest); }},
    {"TheSmallestOffset", kLowest, 2, [] { search_list(kLowest, 0); }},
    {"TheWidestList", kLowest, 2, [] { search_list(kLowest, kHighest); }},
};

class ProcessEnd : public testing::TestWithParam<End> {
 protected:
  // Runs the call in a child, after `prepare`; the alarm ends a hang by another signal than a trap.
  static ChildEnd run(void (*prepare)()) {
    return run_in_child([prepare] {
      alarm(60);
      prepare();
      GetParam().call();
    });
  }
};

void let_be() {}

void close_standard_error() { close(STDERR_FILENO); }

void fill_the_device() {
  const int full = open("/dev/full", O_WRONLY);
  if (full < 0 || dup2(full, STDERR_FILENO) < 0) _exit(3);
}

// A full pipe whose writers do not block.
void fill_the_pipe() {
  int ends[2];
  if (pipe2(ends, O_NONBLOCK) != 0) _exit(3);
  const char block[512] = {};
  while (write(ends[1], block, sizeof block) > 0) continue;
  while (write(ends[1], block, 1) > 0) continue;
  if (dup2(ends[1], STDERR_FILENO) < 0) _exit(3);
}

void break_the_pipe() {
  int ends[2];
  if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) _exit(3);
  close(ends[0]);
}

TEST_P(ProcessEnd, WritesItsLineOnceAndTraps) {
  const ChildEnd end = run(let_be);
  EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
  EXPECT_TRUE(is_bounds_line(end.standard_error, GetParam().index, GetParam().length))
      << end.standard_error;
}

TEST_P(ProcessEnd, TrapsWhereStandardErrorTakesNoLine) {
  for (void (*prepare)() : {close_standard_error, fill_the_device, fill_the_pipe, break_the_pipe}) {
    const ChildEnd end = run(prepare);
    EXPECT_TRUE(end.trapped) << "exit status " << end.exit_status;
    EXPECT_EQ(end.standard_error, "");
  }
}

INSTANTIATE_TEST_SUITE_P(HostData, ProcessEnd, testing::ValuesIn(kEnds),
                         [](const auto& end) { return end.param.name; });

}  // namespace
}  // namespace qx_test
