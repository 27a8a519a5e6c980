// Calls that fail on one rank, and a rank that dies: every rank must throw the same, and none wait.
//
//   mpirun -n RANKS qx_mpi_faults CASE
#include <mpi.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <numeric>
#include <string>
#include <vector>

#include "sharded_index.hpp"

namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using Int32s = std::vector<std::int32_t>;

int rank_here() {
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  return rank;
}

bool is_last() {
  int ranks = 0;
  MPI_Comm_size(MPI_COMM_WORLD, &ranks);
  return rank_here() == ranks - 1;
}

// An index whose base has as many rows on each rank.
struct TestIndex : qx::ShardedIndex {
  explicit TestIndex(std::int32_t dim, std::size_t rows = 0) : ShardedIndex(MPI_COMM_WORLD, dim) {
    if (rows > 0) build(std::vector<float>(rows * static_cast<std::size_t>(dim)));
  }
};

// From now on this rank gets no more than some bytes above what it has.
void limit_memory() {
  long pages = 0;
  std::FILE* const statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr || std::fscanf(statm, "%ld", &pages) != 1) std::abort();
  std::fclose(statm);
  const auto bytes = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE)) + (rlim_t{64} << 20);
  const rlimit limit{bytes, bytes};
  if (setrlimit(RLIMIT_AS, &limit) != 0) std::abort();
}

void same_ids() {
  const std::int64_t rank = rank_here();
  TestIndex(1).build(Floats(2), Ids{rank + 10, is_last() ? 10 : rank + 50});
}

void some_ids() {
  TestIndex index(1);
  if (is_last()) return index.build(Floats(1));
  index.build(Floats(1), Ids{rank_here()});
}

// Reading that fails on one rank of those that take turns.
void no_rows() {
  TestIndex(4).build_from(2, [](std::span<float>) {
    if (rank_here() == 1) throw std::runtime_error("the rows are gone");
  });
}

void no_memory() {
  TestIndex index(1 << 20);
  const Floats rows(is_last() ? std::size_t{64} << 20 : std::size_t{1} << 20);
  if (is_last()) limit_memory();
  index.build(rows);
}

// A change that one rank cannot make, and the call after it.
void no_memory_in_a_change() {
  TestIndex index(1 << 16);
  if (is_last()) limit_memory();
  // Few rows to a call, so that the engine's own array is what cannot grow.
  Ids ids(20);
  std::iota(ids.begin(), ids.end(), 0);
  const Floats rows(rank_here() == 0 ? ids.size() << 16 : 0);
  try {
    for (std::int64_t call = 0; call < 400; ++call) {
      for (std::int64_t& id : ids) id += 20;
      index.insert(rows, ids);
    }
  } catch (const std::bad_alloc&) {
    index.search_filtered(qx::Filter::all(), Floats(rank_here() == 0 ? 1 << 16 : 0), 1);
  }
}

// A search for which one rank cannot allocate its buffers, and one for which all can.
void no_memory_in_a_search() {
  TestIndex index(1, std::size_t{1} << 21);
  if (is_last()) limit_memory();
  const Floats query(rank_here() == 0 ? 1 : 0);
  try {
    index.search_full(query, std::int64_t{1} << 22);
  } catch (const std::bad_alloc& error) {
    const std::vector<qx::Hits> found = index.search_full(query, 2);
    const std::size_t rows = index.ranks().from_root([&] { return found.front().size(); });
    throw std::runtime_error(std::string(error.what()) + "; then found " + std::to_string(rows));
  }
}

// A rank that is killed while the others search.
void killed() {
  TestIndex index(4, 100);
  for (std::int64_t search = 0;; ++search) {
    if (search == 100 && is_last()) std::raise(SIGKILL);
    index.search_full(Floats(4), 3);
  }
}

// Prints what rank 0 caught, when all ranks have caught the same.
int report(const std::string& caught) {
  char text[512] = {};
  std::snprintf(text, sizeof text, "%s", caught.c_str());
  char root_text[512];
  std::memcpy(root_text, text, sizeof text);
  MPI_Bcast(root_text, sizeof root_text, MPI_CHAR, 0, MPI_COMM_WORLD);
  int same = std::strcmp(text, root_text) == 0 ? 1 : 0;
  MPI_Allreduce(MPI_IN_PLACE, &same, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  if (rank_here() == 0) std::printf("%s\n", same == 1 ? text : "ranks caught different errors");
  return same == 1 ? 0 : 1;
}

const std::map<std::string, std::function<void()>> kCases = {
    {"other_dimension", [] { TestIndex(is_last() ? 5 : 4); }},
    {"no_dimension", [] { TestIndex(0); }},
    {"odd_vectors", [] { TestIndex(4).build(Floats(is_last() ? 7 : 8)); }},
    {"same_ids", same_ids},
    {"some_ids", some_ids},
    {"id_outside", [] { TestIndex(1).build(Floats(1), Ids{is_last() ? -1 : rank_here()}); }},
    {"no_rows", no_rows},
    {"no_memory", no_memory},
    {"no_memory_in_a_change", no_memory_in_a_change},
    {"no_memory_in_a_search", no_memory_in_a_search},
    {"wrong_query", [] { TestIndex(4).search_full(Floats(rank_here() == 0 ? 5 : 4), 1); }},
    {"wrong_metadata", [] { TestIndex(4).set_rowmeta(Ids(3), Ids(2), {}, 0); }},
    {"listed_twice",
     [] {
       TestIndex(1, 2).set_ivf(1, 1, Floats(2), Ids{0, 1, 1}, Int32s{0, 2, 3});
     }},
    {"list_outside",
     [] {
       TestIndex(1, 2).set_ivf_by_row(1, 1, Floats(3), Int32s{0, is_last() ? 3 : -1});
     }},
    {"no_lists", [] { TestIndex(1).search_ivf(1, Floats(1), 1); }},
    {"killed", killed}};

int run_case(const std::string& name) {
  try {
    kCases.at(name)();
  } catch (const std::exception& error) {
    return report(error.what());
  }
  return report("nothing was thrown");
}

}  // namespace

int main(int count, char** arguments) {
  MPI_Init(&count, &arguments);
  const int result = run_case(count == 2 ? arguments[1] : "");
  MPI_Finalize();
  return result;
}
