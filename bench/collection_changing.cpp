// Searches of a collection beside 10,000 upserts a second and a compaction, and the peak of memory.
// Not in Python, whose threads wait for each other between calls.
#include <qx_collection.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::int32_t kDim = 128;
constexpr std::int64_t kRows = 250'000;
constexpr std::int64_t kUpsertsAMillisecond = 10;

void require(std::int32_t status) {
  if (status == QX_OK) return;
  std::fprintf(stderr, "%s\n", qx_collection_message());
  std::exit(1);
}

std::vector<float> gaussian(std::int64_t rows, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> component;
  std::vector<float> floats(static_cast<std::size_t>(rows * kDim));
  for (float& number : floats) number = component(random);
  return floats;
}

QxCollection* filled() {
  const QxOptions options = {kDim, QX_NUMBERS, nullptr, 0, 0, 0, 0};
  QxCollection* collection = nullptr;
  require(qx_collection_new(&options, &collection));
  std::vector<std::int64_t> ids;
  for (std::int64_t id = 0; id < kRows; ++id) ids.push_back(id);
  const std::vector<float> rows = gaussian(kRows, 1);
  require(qx_collection_upsert(collection, {kRows, ids.data(), nullptr}, rows.data(), nullptr));
  return collection;
}

double milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

struct Times {
  std::vector<double> all;  // in milliseconds
  double at(double share) const {
    return all[static_cast<std::size_t>(share * static_cast<double>(all.size()))];
  }
};

// Searches by one thread, one after the other.
Times search_for(const QxCollection* collection, std::chrono::seconds duration) {
  static const std::vector<float> queries = gaussian(64, 2);
  QxSearch search = {};
  search.threads = 1;
  Times times;
  const auto end = Clock::now() + duration;
  for (auto began = Clock::now(); began < end; began = Clock::now()) {
    QxHits* hits = nullptr;
    const float* const query = queries.data() + times.all.size() % 64 * kDim;
    require(qx_collection_search(collection, nullptr, query, 1, 10, &search, &hits));
    qx_hits_free(hits);
    times.all.push_back(milliseconds(Clock::now() - began));
  }
  std::ranges::sort(times.all);
  return times;
}

std::int64_t bytes_of(const QxCollection* collection) {
  QxCollectionStats stats;
  qx_collection_stats(collection, &stats);
  return stats.bytes;
}

// Upserts until `stop`: some each millisecond. Returns the time of each.
Times write(QxCollection* collection, const std::atomic<bool>& stop) {
  const std::vector<float> rows = gaussian(kUpsertsAMillisecond, 3);
  std::mt19937 random(4);
  std::uniform_int_distribution<std::int64_t> any_id(0, kRows - 1);
  Times times;
  for (auto next = Clock::now(); !stop; std::this_thread::sleep_until(next)) {
    for (std::int64_t i = 0; i < kUpsertsAMillisecond; ++i) {
      const std::int64_t id = any_id(random);
      const auto began = Clock::now();
      require(qx_collection_upsert(collection, {1, &id, nullptr}, rows.data() + i * kDim, nullptr));
      times.all.push_back(milliseconds(Clock::now() - began));
    }
    next += std::chrono::milliseconds(1);
  }
  std::ranges::sort(times.all);
  return times;
}

struct Round {
  Times quiet, busy, upserts;
  std::int64_t peak = 0;
};

Round play(QxCollection* collection, std::chrono::seconds duration) {
  Round round;
  round.quiet = search_for(collection, duration);
  std::atomic<bool> stop = false;
  std::thread writer([&] { round.upserts = write(collection, stop); });
  std::thread watcher([&] {
    while (!stop) {
      round.peak = std::max(round.peak, bytes_of(collection));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::thread compactor([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    require(qx_collection_compact(collection, nullptr, nullptr));
  });
  round.busy = search_for(collection, duration);
  stop = true;
  for (std::thread* thread : {&writer, &watcher, &compactor}) thread->join();
  require(qx_collection_compact(collection, nullptr, nullptr));
  return round;
}

double median(std::vector<double> numbers) {
  std::ranges::sort(numbers);
  return numbers[numbers.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  const std::chrono::seconds duration(argc > 2 ? std::atoi(argv[2]) : 4);
  QxCollection* const collection = filled();
  std::vector<double> ratios;
  std::printf("\nsearches of %lld x %d beside changes, one thread each\n",
              static_cast<long long>(kRows), kDim);
  for (int i = 0; i < rounds; ++i) {
    const Round round = play(collection, duration);
    ratios.push_back(round.busy.at(0.99) / round.quiet.at(0.99));
    std::printf(
        "  quiet: median %.3f ms, 99 %% %.3f ms; beside %.0f upserts a second and a "
        "compaction: %.3f ms, %.3f ms: %.2f times\n",
        round.quiet.at(0.5), round.quiet.at(0.99),
        static_cast<double>(round.upserts.all.size()) / static_cast<double>(duration.count()),
        round.busy.at(0.5), round.busy.at(0.99), ratios.back());
    std::printf(
        "    upserts: median %.4f ms, 99.9 %% %.3f ms; peak of memory: %.2f times the "
        "compacted rows\n",
        round.upserts.at(0.5), round.upserts.at(0.999),
        static_cast<double>(round.peak) / static_cast<double>(bytes_of(collection)));
  }
  std::printf("  99 %% beside changes: %.2f times the quiet one, median of %d rounds\n",
              median(ratios), rounds);
  qx_collection_free(collection);
}
