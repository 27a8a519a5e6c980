// Calls that fail on one rank, and a rank that dies: every rank must throw the same, and none wait.
//
//   mpirun -n 3 qx_mpi_faults CASE FOLDER
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <numeric>

#include "sharded_collection.hpp"

namespace {
std::atomic<std::int64_t> allocations_left = INT64_MAX;
}  // namespace

// The allocation fails that finds none left.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = allocations_left.fetch_sub(1) == 0 ? nullptr : std::malloc(size + 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace qx::mpi {
namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;

std::string folder;
int rank_here = 0;
bool is_last = false;

constexpr QxColumn kColumns[] = {{"label", QX_INTEGER}, {"lang", QX_TEXT}};

struct TestCollection : ShardedCollection {
  explicit TestCollection(std::int32_t dim, std::size_t rows = 0, std::int64_t memory_limit = 0)
      : ShardedCollection(MPI_COMM_WORLD,
                          {dim, QX_NUMBERS, kColumns, 2, 0, memory_limit, 0, QX_INNER_PRODUCT}) {
    upsert_first(rows);
  }
  void upsert_first(std::size_t rows) {
    std::vector<std::int64_t> ids(rows);
    std::iota(ids.begin(), ids.end(), 0);
    upsert(ids, std::vector<float>(rows * at(schema().dim), 1));
  }
};

// A change that one rank refuses, and the call after it.
void no_memory_in_a_change() {
  TestCollection collection(1000, 1, is_last ? 1 << 20 : 0);
  try {
    collection.upsert_first(2000);
  } catch (const std::bad_alloc& error) {
    const std::string said = error.what();
    try {
      collection.search(Floats(1000), 1);
    } catch (const std::logic_error& then) {
      throw std::runtime_error(said + "; then: " + then.what());
    }
  }
}

// Made before, since their own allocations must not fail.
const Ids kIds = {1, 2, 77};
const Floats kZeros(12);
const QxText kTexts[] = {{"de", 2}, {"fr", 2}, {"", 0}};
const QxValues kValues[] = {{}, {nullptr, nullptr, nullptr, kTexts, nullptr}};

// Fails each allocation of a call in turn on one rank. All must throw then, and agree whether the
// collection is whole; where it is, it has the rows that it had.
void fail_each(void (*call)(ShardedCollection&)) {
  std::int64_t failures = 0;
  for (bool is_reached = true; is_reached; ++failures) {
    TestCollection collection(4, 40);
    std::int64_t refused = 0;
    allocations_left = is_last ? failures : INT64_MAX;
    try {
      call(collection);
    } catch (const std::bad_alloc&) {
      refused = 1;
    }
    const std::int64_t reached = allocations_left < 0 ? 1 : 0;
    allocations_left = INT64_MAX;
    const Communicator ranks(MPI_COMM_WORLD);
    is_reached = ranks.sum(reached) > 0;
    require<std::runtime_error>(ranks.sum(refused) % ranks.size() == 0, "some ranks threw");
    try {
      require<std::runtime_error>(refused == 0 || collection.count() == 40, "the rows differ");
    } catch (const std::logic_error&) {  // it is not whole
    }
  }
  throw std::runtime_error(failures > 3 ? "each allocation has failed" : "none has failed");
}

// Three ranks save, and a file is written anew before they load; without a text, it is removed.
void load_after(const char* file, const char* text) {
  TestCollection(4, 10).save(folder);
  const std::string path = folder + "/" + file;
  if (is_last && text == nullptr) std::filesystem::remove(path);
  if (is_last && text != nullptr) std::ofstream(path) << text;
  MPI_Barrier(MPI_COMM_WORLD);
  ShardedCollection::load(MPI_COMM_WORLD, folder);
}

void upsert_local(std::size_t floats, float value = 1) {
  TestCollection collection(4, 3);
  try {
    collection.upsert_local(Ids{50 + rank_here}, Floats(is_last ? floats : 4, is_last ? value : 1));
  } catch (const std::invalid_argument& error) {
    const std::string rows = std::to_string(collection.count());
    throw std::runtime_error(std::string(error.what()) + "; " + rows + " rows stay");
  }
}

void search(std::size_t floats, std::int64_t k, const std::string& filter) {
  TestCollection(4, 3).search(Floats(rank_here == 0 ? floats : 4), k, filter);
}

// A rank that is killed while the others search.
void killed() {
  const TestCollection collection(4, 100);
  for (std::int64_t search = 0;; ++search) {
    if (search == 100 && is_last) std::raise(SIGKILL);
    collection.search(Floats(4), 3);
  }
}

const std::map<std::string, void (*)()> kCases = {
    {"other_dimension", [] { TestCollection(is_last ? 5 : 4); }},
    {"no_dimension", [] { TestCollection(0); }},
    {"odd_vectors", [] { upsert_local(7); }},
    {"not_finite", [] { upsert_local(4, std::numeric_limits<float>::infinity()); }},
    {"no_memory_in_a_change", no_memory_in_a_change},
    {"allocations_of_an_upsert",
     [] { fail_each([](auto& all) { all.upsert(kIds, kZeros, kValues); }); }},
    {"allocations_of_a_remove", [] { fail_each([](auto& all) { all.remove(kIds); }); }},
    {"allocations_of_a_search",
     [] { fail_each([](auto& all) { all.search(kZeros, 9, "label IS NULL", kIds); }); }},
    {"allocations_of_a_save", [] { fail_each([](auto& all) { all.save(folder); }); }},
    {"wrong_query", [] { search(5, 1, ""); }},
    {"wrong_k", [] { search(4, -1, ""); }},
    {"wrong_filter", [] { search(4, 1, "label = 'x'"); }},
    {"no_folder", [] { ShardedCollection::load(MPI_COMM_WORLD, folder + "/none"); }},
    {"other_ranks", [] { load_after("manifest", "qx-mpi 1 ranks 4 rows 10 save 0"); }},
    {"other_rows", [] { load_after("manifest", "qx-mpi 1 ranks 3 rows 11 save 0"); }},
    {"no_manifest", [] { load_after("manifest", "qx-mpi 2 ranks 3 rows 10 save 0"); }},
    {"no_file", [] { load_after("rank-2.0", nullptr); }},
    {"cut_file", [] { load_after("rank-1.0", "QX"); }},
    {"killed", killed}};

// Prints what rank 0 caught, when all ranks have caught the same.
void run_case(const std::string& name) {
  const Communicator ranks(MPI_COMM_WORLD);
  rank_here = ranks.rank();
  is_last = rank_here == ranks.size() - 1;
  std::string caught = "nothing was thrown";
  try {
    kCases.at(name)();
  } catch (const std::exception& error) {
    caught = error.what();
  }
  const std::vector<char> of_root = ranks.shared(std::span<const char>(caught));
  const bool same = ranks.sum(std::ranges::equal(caught, of_root) ? 0 : 1) == 0;
  if (ranks.is_root()) std::puts(same ? caught.c_str() : "ranks caught different errors");
}

}  // namespace
}  // namespace qx::mpi

int main(int count, char** arguments) {
  int provided = 0;
  MPI_Init_thread(&count, &arguments, MPI_THREAD_FUNNELED, &provided);
  qx::mpi::folder = arguments[2];
  qx::mpi::run_case(arguments[1]);
  MPI_Finalize();
  return 0;
}
