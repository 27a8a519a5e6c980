// A service of four threads over one collection: two move stock between items, one answers searches
// with a filter, and one saves. Readers take views, so that they see no half of a change.
// usage: service FILE. It ends with
//   2318 of 10000 items have stock > 60; nearest: 7783 (0.4056) 9144 (0.3832) 649 (0.3753)
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <future>
#include <numeric>
#include <qx_collection.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Numbers = std::vector<std::int64_t>;

constexpr std::int64_t kItems = 10'000;
constexpr std::int32_t kDim = 64;
constexpr std::int64_t kStock = 50;  // of each item, when the service opens
constexpr int kMoves = 2'000;        // of each thread that moves stock

// The vector of an item does not change.
std::vector<float> vectors_of(const Numbers& items) {
  std::vector<float> vectors;
  for (const std::int64_t item : items) {
    std::minstd_rand random(static_cast<std::uint32_t>(item) + 1);
    for (int i = 0; i < kDim; ++i) {
      vectors.push_back(static_cast<float>(random() % 2001) / 1000.0f - 1.0f);
    }
  }
  return vectors;
}

std::int64_t stock_of(const qx::Collection::Row& row) {
  return std::get<std::int64_t>(row.values[0]);
}

void require(bool condition, const char* what) {
  if (!condition) throw std::logic_error(what);
}

qx::Collection opened() {
  qx::Collection items(
      {.dim = kDim, .columns = {{"stock", QX_INTEGER}}, .metric = qx::Metric::kCosine});
  Numbers ids(kItems);
  std::iota(ids.begin(), ids.end(), 0);
  items.upsert(ids, vectors_of(ids), {Numbers(kItems, kStock)});
  return items;
}

// Moves stock between even items or between odd ones. Both rows of an upsert appear together.
void move_stock(qx::Collection& items, std::int64_t parity) {
  std::minstd_rand random(static_cast<std::uint32_t>(parity) + 1);
  Numbers stock(kItems, kStock);
  for (int move = 0; move < kMoves; ++move) {
    const auto from = static_cast<std::int64_t>(random() % (kItems / 2)) * 2 + parity;
    const std::int64_t to = (from + 2 + static_cast<std::int64_t>(random() % 7) * 2) % kItems;
    std::int64_t& left = stock[static_cast<std::size_t>(from)];
    std::int64_t& right = stock[static_cast<std::size_t>(to)];
    right += left / 2;
    left -= left / 2;
    items.upsert({from, to}, vectors_of({from, to}), {Numbers{left, right}});
  }
}

// The number of searches.
int answer(const qx::Collection& items, const std::atomic<bool>& open) {
  int searches = 0;
  for (; open || searches == 0; ++searches) {
    const qx::View view = items.view();
    Numbers found;
    const qx::Collection::Search search = {.filter = "stock > 60"};
    for (const auto& [id, score] : view.search(vectors_of({kItems + searches}), 10, search)) {
      found.push_back(id);
    }
    for (const auto& row : view.get(found)) require(stock_of(row) > 60, "a hit fails its filter");
  }
  return searches;
}

// The number of files, each of which must have all the stock.
int save(const qx::Collection& items, const std::atomic<bool>& open, const std::string& file) {
  int files = 0;
  for (; open || files == 0; ++files) {
    items.save(file);
    std::int64_t total = 0;
    for (const auto& row : qx::Collection::load(file).list()) total += stock_of(row);
    require(total == kItems * kStock, "a file has half of a change");
  }
  return files;
}

void serve(const std::string& file) {
  qx::Collection items = opened();
  std::atomic<bool> open = true;
  const auto start = [](auto work) { return std::async(std::launch::async, work); };
  auto even = start([&] { move_stock(items, 0); });
  auto odd = start([&] { move_stock(items, 1); });
  auto searches = start([&] { return answer(items, open); });
  auto files = start([&] { return save(items, open, file); });
  even.wait();
  odd.wait();
  open = false;
  even.get();
  odd.get();
  std::printf("%d upserts, beside %d searches and %d saved files\n", 2 * kMoves, searches.get(),
              files.get());

  items.save(file);
  const qx::Collection loaded = qx::Collection::load(file);
  const std::vector<float> query = vectors_of({kItems});
  const qx::Collection::Search search = {.filter = "stock > 60"};
  const qx::Collection::Hits hits = items.search(query, 3, search);
  require(std::ranges::equal(hits, loaded.search(query, 3, search)), "the file differs");
  std::printf("%zu of %zu items have stock > 60; nearest:", items.list(search.filter).size(),
              items.size());
  for (const auto& [id, score] : hits) {
    std::printf(" %lld (%.4f)", static_cast<long long>(id), double{score});
  }
  std::puts("");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) throw std::invalid_argument("usage: service FILE");
  serve(argv[1]);
} catch (const std::exception& error) {
  std::fprintf(stderr, "service: %s\n", error.what());
  return 1;
}
