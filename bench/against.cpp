// The library beside an earlier one: the same calls of the C interface on two shared libraries, in
// interleaved rounds. Prints a table. Both must give the same bits.
//
//   against [--quick] NOW BEFORE [WORDS]
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "harness/data.h"
#include "harness/measure.h"
#include "harness/unit_words.h"

namespace bench {
namespace {

// A library, and those of its functions that are called.
class Library {
 public:
  explicit Library(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    require(handle_ != nullptr, std::string("the library ") + path + " can be loaded");
  }

 private:
  template <typename Function>
  Function* find(const char* name) const {
    void* const found = dlsym(handle_, name);
    require(found != nullptr, std::string("the library has ") + name);
    Function* call = nullptr;
    std::memcpy(&call, &found, sizeof found);
    return call;
  }
  void* handle_;

 public:
#define QX_CALL(call) decltype(&::call) call = find<decltype(::call)>(#call)
  QX_CALL(qx_index_new);
  QX_CALL(qx_index_free);
  QX_CALL(qx_index_build);
  QX_CALL(qx_index_insert);
  QX_CALL(qx_index_delete);
  QX_CALL(qx_index_set_rowmeta);
  QX_CALL(qx_index_search_full);
  QX_CALL(qx_index_scatter_topk);
  QX_CALL(qx_index_search_mvcc);
  QX_CALL(qx_index_search_filtered);
#undef QX_CALL
};

// One of two libraries, and what it was given.
struct Side {
  explicit Side(const Library& its_library) : calls(its_library) {}
  ~Side() { calls.qx_index_free(index); }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  const Library& calls;
  QxIndex* index = nullptr;
  std::int64_t turn = 0;
  std::int64_t k = kResults;
  Ids ids = Ids(1000);
  std::vector<float> scores = std::vector<float>(1000);
};

// What a side does in a turn, beside what is not timed.
struct Work {
  std::string name;
  std::int64_t dim;
  std::int64_t items;
  std::function<void(Side& side)> run;
  std::function<void(Side& side)> before = {};  // each run, if it is there
  std::int64_t k = kResults;
};

class Comparison {
 public:
  Comparison(const Library& now, const Library& before, bool quick)
      : now_(now), before_(before), quick_(quick) {
    std::puts(
        "| work | dim | k | ns an item | before | × before |\n|---|---:|---:|---:|---:|---:|");
  }

  std::int64_t pick(std::int64_t usual, std::int64_t quick) const { return quick_ ? quick : usual; }

  void seal(std::int64_t rows, std::int64_t dim, Random& random) {
    const Floats vectors = random_floats(rows * dim, random);
    seal(vectors, permuted_ids(rows, random), dim);
  }

  void seal(const Floats& vectors, const Ids& ids, std::int64_t dim) {
    for (Side* side : {&now_, &before_}) fill(*side, vectors, ids, dim);
  }

  static void fill(Side& side, const Floats& vectors, const Ids& ids, std::int64_t dim) {
    side.calls.qx_index_free(side.index);
    side.index = side.calls.qx_index_new(static_cast<std::uint32_t>(dim), 0);
    side.calls.qx_index_build(side.index, vectors.data(), count_of(ids),
                              static_cast<std::int32_t>(dim), ids.data(), nullptr, nullptr, nullptr,
                              0);
  }

  template <typename Call>
  void each(Call call) {
    call(now_);
    call(before_);
  }

  void compare(const Work& work) {
    Contestants contestants;
    const auto add = [&](const char* name, Role role, Side& side) {
      side.turn = 0;
      side.k = work.k;
      std::ranges::fill(side.ids, 0);
      std::ranges::fill(side.scores, 0.0f);
      if (work.before) work.before(side);
      work.run(side);
      Contestant contestant(name, role, [&work, &side] { work.run(side); });
      if (work.before) {
        contestant.before = [&work, &side] { work.before(side); };
        contestant.single = true;
      }
      contestants.push_back(contestant);
    };
    add("now", Role::kEngine, now_);
    add("before", Role::kBaseline, before_);
    const auto found = static_cast<std::ptrdiff_t>(work.k);
    require(std::equal(now_.ids.begin(), now_.ids.begin() + found, before_.ids.begin()) &&
                std::memcmp(now_.scores.data(), before_.scores.data(),
                            static_cast<std::size_t>(found) * sizeof(float)) == 0,
            "both libraries give the same bits for " + work.name);
    const auto timings =
        time_rounds(contestants, quick_ ? Effort{5, 0.001, 0.3} : Effort{15, 0.003, 3.0});
    const double per = 1e9 / static_cast<double>(work.items);
    const double now = median(timings[0].seconds) * per, before = median(timings[1].seconds) * per;
    std::printf("| %s | %lld | %lld | %.2f | %.2f | %.2f |\n", work.name.c_str(),
                static_cast<long long>(work.dim), static_cast<long long>(work.k), now, before,
                before / now);
    std::fflush(stdout);
  }

 private:
  Side now_;
  Side before_;
  bool quick_;
};

std::string of_rows(const char* what, std::int64_t rows, std::int64_t dim) {
  char text[64];
  std::snprintf(text, sizeof text, "%s, %g MB", what,
                static_cast<double>(rows * dim * 4) / (1 << 20));
  return text;
}

// Searches of all rows by each of eight queries in turn.
void search_full(Comparison& comparison, const std::string& name, std::int64_t rows,
                 std::int64_t dim, const Floats& queries, const Ids& ks) {
  for (const std::int64_t k : ks) {
    comparison.compare({name,
                        dim,
                        rows,
                        [&](Side& side) {
                          side.calls.qx_index_search_full(side.index,
                                                          queries.data() + side.turn++ % 8 * dim,
                                                          static_cast<std::int32_t>(side.k),
                                                          side.ids.data(), side.scores.data());
                        },
                        {},
                        k});
  }
}

void search_all(Comparison& comparison, std::int64_t bytes, std::int64_t dim, const Ids& ks) {
  Random random(1);
  const std::int64_t rows = bytes / (4 * dim);
  comparison.seal(rows, dim, random);
  search_full(comparison, of_rows("search_full", rows, dim), rows, dim,
              random_floats(8 * dim, random), ks);
}

void search_words(Comparison& comparison, const char* path) {
  static_assert(kAskedWords == 8);
  const UnitWords words = read_unit_words(path);
  comparison.seal(words.vectors, ascending_ids(words.rows), words.dim);
  search_full(comparison, "search_full, all words", words.rows, words.dim, words.asked,
              {1, 10, 100, 1000});
}

Ids drawn(std::int64_t count, std::int64_t below, Random& random) {
  Ids ids(static_cast<std::size_t>(count));
  for (std::int64_t& id : ids) id = random.below(below);
  return ids;
}

void search_some(Comparison& comparison, std::int64_t dim) {
  Random random(2);
  const std::int64_t rows = (comparison.pick(500, 100) << 20) / (4 * dim);
  comparison.seal(rows, dim, random);
  const Floats queries = random_floats(8 * dim, random);
  const auto query = [&](const Side& side) { return queries.data() + side.turn % 8 * dim; };
  const auto search_lists = [&](bool sealed, std::int64_t length) {
    // Other ids in each search, so that rows are met cold.
    const std::int64_t lists = std::max<std::int64_t>((96 << 20) / (length * dim * 4), 4);
    const Ids ids = drawn(lists * length, rows, random);
    const std::string name = sealed ? "scatter_topk, " : "search_mvcc, 1 % changed, ";
    comparison.compare(
        {name + std::to_string(length) + " ids", dim, length, [&](Side& side) {
           const std::int64_t* const list = ids.data() + side.turn % lists * length;
           const auto count = static_cast<std::int32_t>(length);
           if (sealed) {
             side.calls.qx_index_scatter_topk(side.index, list, count, query(side), kResults,
                                              side.ids.data(), side.scores.data());
           } else {
             side.calls.qx_index_search_mvcc(side.index, list, count, query(side), kResults,
                                             side.ids.data(), side.scores.data());
           }
           ++side.turn;
         }});
  };
  search_lists(true, 100000);
  for (const std::int64_t one_of : {10, 100}) {
    if (dim != 128) break;
    const Ids labels = drawn(rows, one_of, random);
    const Ids ids = ascending_ids(rows);
    comparison.each([&](Side& side) {
      side.calls.qx_index_set_rowmeta(side.index, ids.data(), labels.data(), nullptr, 0,
                                      count32_of(ids));
    });
    comparison.compare({"search_filtered, one of " + std::to_string(one_of) + " passes", dim,
                        rows / one_of, [&](Side& side) {
                          side.calls.qx_index_search_filtered(side.index, QX_FILTER_LABEL, 0, 1,
                                                              query(side), kResults,
                                                              side.ids.data(), side.scores.data());
                          ++side.turn;
                        }});
  }
  const Ids inserted = drawn(rows / 100, rows, random), deleted = drawn(rows / 100, rows, random);
  const Floats vectors = random_floats(count_of(inserted) * dim, random);
  comparison.each([&](Side& side) {
    side.calls.qx_index_insert(side.index, vectors.data(), inserted.data(), count32_of(inserted));
    side.calls.qx_index_delete(side.index, deleted.data(), count32_of(deleted));
  });
  for (const std::int64_t length : {1000, 100000}) search_lists(false, length);
}

void change(Comparison& comparison, std::int64_t dim) {
  Random random(3);
  const std::int64_t rows = comparison.pick(100000, 20000);
  const Floats vectors = random_floats(rows * dim, random);
  const Floats queries = random_floats(8 * dim, random);
  const Ids ids = permuted_ids(rows, random);
  const auto empty = [&](Side& side) {
    side.calls.qx_index_free(side.index);
    side.index = side.calls.qx_index_new(static_cast<std::uint32_t>(dim), 0);
  };
  const auto in_thousands = [&](auto call) {
    in_calls(ids, [&](std::int64_t first, std::int32_t count) { call(first, count); });
  };
  comparison.compare({"build", dim, rows,
                      [&](Side& side) {
                        side.calls.qx_index_build(side.index, vectors.data(), rows,
                                                  static_cast<std::int32_t>(dim), ids.data(),
                                                  nullptr, nullptr, nullptr, 0);
                      },
                      empty});
  comparison.compare({"delete", dim, rows,
                      [&](Side& side) {
                        in_thousands([&](std::int64_t first, std::int32_t count) {
                          side.calls.qx_index_delete(side.index, ids.data() + first, count);
                        });
                      },
                      empty});
  comparison.compare({"insert", dim, rows,
                      [&](Side& side) {
                        in_thousands([&](std::int64_t first, std::int32_t count) {
                          side.calls.qx_index_insert(side.index, vectors.data() + first * dim,
                                                     ids.data() + first, count);
                        });
                      },
                      empty});
  // The indexes have what was inserted last.
  comparison.compare({"search_filtered, of a delta", dim, rows, [&](Side& side) {
                        side.calls.qx_index_search_filtered(
                            side.index, QX_FILTER_ALL, 0, 0, queries.data() + side.turn++ % 8 * dim,
                            kResults, side.ids.data(), side.scores.data());
                      }});
}

void run(const Library& now, const Library& before, bool quick, const char* words) {
  hold_scattered_pages();
  Comparison comparison(now, before, quick);
  for (const std::int64_t kilobytes : {512, 2048, 12288}) {
    for (const std::int64_t dim : {32, 64, 128, 256, 768}) {
      search_all(comparison, kilobytes << 10, dim, {10, 100});
    }
  }
  const std::int64_t bytes = comparison.pick(500, 100) << 20;
  for (const std::int64_t dim : {32, 64, 100, 256, 384, 768, 1536}) {
    search_all(comparison, bytes, dim, {10});
  }
  search_all(comparison, bytes, 128, {1, 10, 100, 1000});
  if (words != nullptr) search_words(comparison, words);
  for (const std::int64_t dim : {32, 128, 768}) search_some(comparison, dim);
  for (const std::int64_t dim : {128, 768}) change(comparison, dim);
}

}  // namespace
}  // namespace bench

int main(int count, char** arguments) {
  const bool quick = count >= 4 && std::strcmp(arguments[1], "--quick") == 0;
  if (count != 3 + quick && count != 4 + quick) {
    std::fputs("usage: against [--quick] NOW BEFORE [WORDS]\n", stderr);
    return 2;
  }
  char** const files = arguments + 1 + quick;
  bench::run(bench::Library(files[0]), bench::Library(files[1]), quick, files[2]);
}
