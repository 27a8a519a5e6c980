// What several threads of a host do with one collection. Not in Python, whose threads wait for each
// other between calls.
//   changing     searches beside 10,000 upserts a second and a compaction, and the peak of memory
//   independent  searches of two threads that know nothing of each other, beside those of one
#include <qx_collection.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::int32_t kDim = 128;
constexpr std::int64_t kChangedRows = 250'000;
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

QxCollection* filled(std::int64_t rows_wanted) {
  QxOptions options = {};
  options.dim = kDim;
  QxCollection* collection = nullptr;
  require(qx_collection_new(&options, &collection));
  std::vector<std::int64_t> ids;
  for (std::int64_t id = 0; id < rows_wanted; ++id) ids.push_back(id);
  const std::vector<float> rows = gaussian(rows_wanted, 1);
  require(
      qx_collection_upsert(collection, {rows_wanted, ids.data(), nullptr}, rows.data(), nullptr));
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

const std::vector<float>& queries() {
  static const std::vector<float> made = gaussian(64, 2);
  return made;
}

void search(const QxCollection* collection, std::size_t query) {
  QxSearch search = {};
  search.threads = 1;
  QxHits* hits = nullptr;
  const float* const components = queries().data() + query % 64 * kDim;
  require(qx_collection_search(collection, nullptr, components, 1, 10, &search, &hits));
  qx_hits_free(hits);
}

// Searches by one thread, one after the other.
Times search_for(const QxCollection* collection, std::chrono::seconds duration) {
  Times times;
  const auto end = Clock::now() + duration;
  for (auto began = Clock::now(); began < end; began = Clock::now()) {
    search(collection, times.all.size());
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
  std::uniform_int_distribution<std::int64_t> any_id(0, kChangedRows - 1);
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

void changing(int rounds) {
  constexpr std::chrono::seconds kDuration(4);
  QxCollection* const collection = filled(kChangedRows);
  std::vector<double> ratios;
  std::printf("\nsearches of %lld x %d beside changes, one thread each\n",
              static_cast<long long>(kChangedRows), kDim);
  for (int i = 0; i < rounds; ++i) {
    const Round round = play(collection, kDuration);
    ratios.push_back(round.busy.at(0.99) / round.quiet.at(0.99));
    std::printf(
        "  quiet: median %.3f ms, 99 %% %.3f ms; beside %.0f upserts a second and a "
        "compaction: %.3f ms, %.3f ms: %.2f times\n",
        round.quiet.at(0.5), round.quiet.at(0.99),
        static_cast<double>(round.upserts.all.size()) / static_cast<double>(kDuration.count()),
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

// The time of as many searches by each of some threads.
double time_of(const QxCollection* collection, int threads, std::size_t searches) {
  const auto began = Clock::now();
  std::vector<std::thread> all;
  for (int i = 0; i < threads; ++i) {
    all.emplace_back([=] {
      for (std::size_t query = 0; query < searches; ++query) search(collection, query);
    });
  }
  for (std::thread& thread : all) thread.join();
  return milliseconds(Clock::now() - began);
}

void independent(int rounds) {
  for (const std::int64_t megabytes : {12, 500}) {
    const std::int64_t rows = megabytes * (std::int64_t{1} << 20) / (4 * kDim);
    QxCollection* const collection = filled(rows);
    const auto searches = static_cast<std::size_t>(20'000 / megabytes);
    std::vector<double> ratios;
    for (int i = 0; i < rounds; ++i) {
      const double one = time_of(collection, 1, searches);
      ratios.push_back(2 * one / time_of(collection, 2, searches));
    }
    std::printf(
        "\nindependent searches of %lld x %d (%lld MB): two threads make %.2f times as many "
        "as one (%.2f to %.2f, %d rounds)\n",
        static_cast<long long>(rows), kDim, static_cast<long long>(megabytes), median(ratios),
        *std::ranges::min_element(ratios), *std::ranges::max_element(ratios), rounds);
    qx_collection_free(collection);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view section = argc > 1 ? argv[1] : "";
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 9;
  if (section == "changing" && rounds > 0) {
    changing(rounds);
  } else if (section == "independent" && rounds > 0) {
    independent(rounds);
  } else {
    std::fprintf(stderr, "usage: collection_threads changing|independent [ROUNDS]\n");
    return 2;
  }
}
