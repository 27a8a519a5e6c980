// A service of four threads over one collection: two move stock between items, one answers searches
// with a filter, and one saves. Each reads whole changes alone. usage: service FILE. It ends with
//   2318 of 10000 items have stock > 60; nearest: 7783 (0.4056) 9144 (0.3832) 649 (0.3753)
#include <atomic>
#include <cstdint>
#include <cstdio>
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

// Moves stock between even items or between odd ones. Both rows of an upsert appear together.
void move_stock(qx::Collection& items, std::int64_t parity) {
  std::minstd_rand random(static_cast<std::uint32_t>(parity) + 1);
  Numbers stock(kItems, kStock);
  for (int move = 0; move < 2'000; ++move) {
    const auto from = static_cast<std::int64_t>(random() % (kItems / 2)) * 2 + parity;
    const std::int64_t to = (from + 2 + static_cast<std::int64_t>(random() % 7) * 2) % kItems;
    std::int64_t& left = stock[static_cast<std::size_t>(from)];
    std::int64_t& right = stock[static_cast<std::size_t>(to)];
    right += left / 2;
    left -= left / 2;
    items.upsert({from, to}, vectors_of({from, to}), {Numbers{left, right}});
  }
}

qx::Collection::Hits find(const qx::Collection& items, std::int64_t like) {
  return items.search(vectors_of({like}), 3, {.filter = "stock > 60"});
}

// Loads a file, which must have all the stock.
qx::Collection load(const std::string& file) {
  qx::Collection items = qx::Collection::load(file);
  std::int64_t stock = 0;
  for (const auto& row : items.list()) stock += std::get<std::int64_t>(row.values[0]);
  if (stock != kItems * kStock) throw std::logic_error("a file has half of a change");
  return items;
}

void serve(const std::string& file) {
  qx::Collection items(
      {.dim = kDim, .columns = {{"stock", QX_INTEGER}}, .metric = qx::Metric::kCosine});
  Numbers ids(kItems);
  std::iota(ids.begin(), ids.end(), 0);
  items.upsert(ids, vectors_of(ids), {Numbers(kItems, kStock)});

  std::atomic<bool> open = true;
  int searches = 0, files = 0;
  const auto start = [](auto work) { return std::async(std::launch::async, work); };
  auto even = start([&] { move_stock(items, 0); });
  auto odd = start([&] { move_stock(items, 1); });
  auto searching = start([&] {
    while (open) find(items, kItems + searches++);
  });
  auto saving = start([&] {
    for (; open; ++files) items.save(file), load(file);
  });
  even.wait(), odd.wait(), open = false;
  for (auto* thread : {&even, &odd, &searching, &saving}) thread->get();
  std::printf("4000 changes, beside %d searches and %d saved files\n", searches, files);
  items.save(file);
  items = load(file);
  std::printf("%zu of %zu items have stock > 60; nearest:", items.list("stock > 60").size(),
              items.size());
  for (const auto& [id, score] : find(items, kItems)) {
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
