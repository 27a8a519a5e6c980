// The concurrency that qx_collection.h promises: writers, readers with and without views, and
// compaction on one collection at a time. Every change is of pairs: rows 2p and 2p + 1 appear and
// go together, with one vector and one value, the number of the change. So a reader that sees half
// of a change sees a pair that differs. Writers log their changes under a mutex of their own; in
// the end the collection holds what the log says.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "qx_collection.h"
#include "support/random.h"

namespace {

using qx_test::Random;

constexpr int kDim = 64;
constexpr std::int64_t kPairs = 3000;
constexpr int kChanges = 150;              // of each writer
constexpr std::int64_t kMostPairs = 2100;  // of a change: enough for a segment

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "collection_threads: %s; %s\n", what, qx_collection_message());
  std::exit(1);
}

// The newest change of each pair, or 0 where it has no rows.
using Changes = std::vector<std::int64_t>;

class Writers {
 public:
  explicit Writers(QxCollection* collection) : collection_(collection), newest_(kPairs) {}

  // A change of some pairs. The order of the log is that of the changes.
  void change(Random& random) {
    const std::int64_t pairs = random.percent(3) ? kMostPairs : random.between(1, 20);
    const std::int64_t first = random.between(0, kPairs - pairs);
    const std::lock_guard lock(logging_);
    const bool is_removal = random.percent(30);
    ++changes_;
    std::vector<std::int64_t> ids;
    for (std::int64_t p = first; p < first + pairs; ++p) {
      newest_[static_cast<std::size_t>(p)] = is_removal ? 0 : changes_;
      ids.push_back(2 * p + 1);
      ids.push_back(2 * p);
    }
    const QxIds list = {std::ssize(ids), ids.data(), nullptr};
    if (is_removal) {
      require(qx_collection_remove(collection_, list, nullptr) == QX_OK, "a removal fails");
      return;
    }
    const std::vector<float> vectors(ids.size() * kDim, static_cast<float>(changes_));
    const std::vector<std::int64_t> values(ids.size(), changes_);
    const QxValues column = {values.data(), nullptr, nullptr, nullptr, nullptr};
    require(qx_collection_upsert(collection_, list, vectors.data(), &column) == QX_OK,
            "an upsert fails");
  }

  const Changes& newest() const { return newest_; }

 private:
  QxCollection* collection_;
  std::mutex logging_;
  std::int64_t changes_ = 0;
  Changes newest_;
};

// The changes of the listed pairs.
Changes changes_of(const QxRows& rows) {
  Changes changes(kPairs);
  require(rows.count % 2 == 0, "a page holds half of a pair");
  for (std::int64_t i = 0; i < rows.count; i += 2) {
    const std::int64_t change = rows.columns[0].integers[i];
    require(rows.ids[i] % 2 == 0 && rows.ids[i + 1] == rows.ids[i] + 1, "half of a pair is seen");
    require(rows.columns[0].integers[i + 1] == change, "the values of a pair differ");
    for (std::int64_t j = i * kDim; j < (i + 2) * kDim; ++j) {
      require(rows.vectors[j] == static_cast<float>(change), "a vector is not that of its value");
    }
    changes[static_cast<std::size_t>(rows.ids[i] / 2)] = change;
  }
  return changes;
}

Changes list(const QxCollection* collection, const QxView* view) {
  QxRows* rows = nullptr;
  require(qx_collection_list(collection, view, nullptr, {}, INT64_MAX, &rows) == QX_OK,
          "a listing fails");
  Changes changes = changes_of(*rows);
  qx_rows_free(rows);
  return changes;
}

// The best rows, by falling or rising change; of both rows of a pair, the even one comes first.
void search(const QxCollection* collection, const QxView* view, Random& random) {
  const std::vector<float> queries(std::size_t{2} * kDim, 1.0f);
  const std::int64_t k = 2 * random.between(1, 40);
  QxSearch search = {};
  search.filter = random.percent(50) ? "change > 5" : nullptr;
  search.threads = random.between32(1, 3);
  QxOptions schema;
  qx_collection_schema(collection, &schema);
  const float sign = schema.metric == QX_EUCLIDEAN ? -1.0f : 1.0f;
  QxHits* hits = nullptr;
  require(qx_collection_search(collection, view, queries.data(), 2, k, &search, &hits) == QX_OK,
          "a search fails");
  for (std::int64_t i = 0; i < hits->counts[0]; i += 2) {
    require(hits->ids[i] % 2 == 0 && hits->ids[i + 1] == hits->ids[i] + 1,
            "half of a pair is found");
    require(hits->scores[i] == hits->scores[i + 1], "the scores of a pair differ");
    require(i == 0 || sign * hits->scores[i] <= sign * hits->scores[i - 1], "scores get better");
  }
  for (std::int64_t i = 0; i < hits->k; ++i) {
    require(hits->ids[i] == hits->ids[hits->k + i], "equal queries of a batch differ");
  }
  qx_hits_free(hits);
}

// A view does not change, but by its own changes.
void read_view(const QxCollection* collection, Random& random) {
  QxView* view = nullptr;
  require(qx_view_new(collection, &view) == QX_OK, "there is no view");
  Changes before = list(collection, view);
  search(collection, view, random);
  const std::int64_t pair = random.between(0, kPairs - 1);
  const std::int64_t ids[] = {2 * pair, 2 * pair + 1};
  require(qx_view_remove(view, {2, ids, nullptr}, nullptr) == QX_OK, "a removal of a view fails");
  before[static_cast<std::size_t>(pair)] = 0;
  require(list(collection, view) == before, "a view changes");
  qx_view_free(view);
}

void read(const QxCollection* collection, Random& random) {
  if (random.percent(30)) return read_view(collection, random);
  if (random.percent(30)) list(collection, nullptr);
  require(qx_collection_count(collection, nullptr) % 2 == 0, "half of a pair is counted");
  search(collection, nullptr, random);
}

// Three write, three read, one compacts, and one does each in turn.
bool play(std::uint64_t seed) {
  const QxColumn column = {"change", QX_INTEGER};
  const std::int32_t metric = seed % 2 == 0 ? QX_EUCLIDEAN : QX_INNER_PRODUCT;
  const QxOptions options = {kDim, QX_NUMBERS, &column, 1, 0, 0, 0, metric};
  QxCollection* collection = nullptr;
  require(qx_collection_new(&options, &collection) == QX_OK, "there is no collection");
  Writers writers(collection);
  std::atomic<int> writing = 4;
  const auto write = [&](std::uint64_t number) {
    Random random(8 * seed + number);
    for (int i = 0; i < kChanges; ++i) {
      writers.change(random);
      if (number == 3) read(collection, random);
    }
    --writing;
  };
  const auto read_on = [&](std::uint64_t number) {
    Random random(8 * seed + number);
    while (writing > 0) {
      if (number < 7) {
        read(collection, random);
      } else {
        require(qx_collection_compact(collection, nullptr, nullptr) == QX_OK, "compaction fails");
      }
    }
  };
  std::vector<std::thread> threads;
  for (std::uint64_t number = 0; number < 4; ++number) threads.emplace_back(write, number);
  for (std::uint64_t number = 4; number < 8; ++number) threads.emplace_back(read_on, number);
  for (std::thread& thread : threads) thread.join();
  const bool agrees = list(collection, nullptr) == writers.newest();
  qx_collection_free(collection);
  return agrees;
}

}  // namespace

// usage: collection_threads [ROUNDS]
int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 3;
  bool agree = true;
  for (int round = 0; round < rounds; ++round) agree &= play(static_cast<std::uint64_t>(round));
  std::printf("8 threads, %d rounds of %d changes: the log and the collection %s\n", rounds,
              4 * kChanges, agree ? "agree" : "DISAGREE");
  return agree ? 0 : 1;
}
