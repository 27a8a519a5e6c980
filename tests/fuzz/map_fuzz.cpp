// Bytes choose assignments to the map and look-ups, also of keys with equal hashes; it must answer
// like a standard map and keep the order of first insertion.
#include "fuzz/target.h"
#include "internal/checked_map.h"
#include "support/heap.h"
#include "support/random.h"

namespace {

using qx_test::Keys;
using qx_test::Random;

std::int64_t draw_key(Random& random, const Keys& known) {
  const std::int64_t kind = random.between(0, 4);
  if (kind == 0) return random.between(-4, 250);
  if (kind == 1) return qx_test::colliding_key(static_cast<std::uint64_t>(random.between(0, 255)));
  if (kind == 2) return known.empty() ? 0 : random.any_of(known);
  if (kind == 3) return static_cast<std::int64_t>(random.bits());
  const auto number = static_cast<std::uint64_t>(random.between(0, 255));
  return static_cast<std::int64_t>(number << random.between(0, 63));
}

// Consecutive keys in the order of the entries, with absent ones among them; or any keys.
Keys draw_keys(Random& source, const Keys& order, std::int64_t most) {
  Keys keys;
  const std::int64_t count = source.between(0, most);
  const std::int64_t known = std::ssize(order);
  const bool in_order = known > 0 && source.percent(60);
  const std::int64_t first = in_order ? source.between(0, known - 1) : 0;
  Random& random = source.for_array(count);
  for (std::int64_t i = 0; i < count; ++i) {
    const bool stranger = !in_order || random.percent(10);
    keys.push_back(stranger ? random.between(-600, 1200) : order.data()[(first + i) % known]);
  }
  return keys;
}

template <typename Map>
void play(Random& random) {
  qx_test::CheckedMap<Map> map([](bool holds, const char* what) { qx_test::require(holds, what); });
  std::int64_t value = 0;
  while (!random.exhausted()) {
    const std::int64_t step = random.between(0, 5);
    if (step == 3) {
      const Keys keys = draw_keys(random, map.order(), 300);
      map.assign_batch(keys, value);
      value += std::ssize(keys);
    } else if (step == 5) {
      typename Map::Cursor cursor;
      for (std::int64_t batch = random.between(1, 3); batch > 0; --batch) {
        map.ask_batch(draw_keys(random, map.order(), Map::kBatch), cursor);
      }
    } else {
      const std::int64_t key = draw_key(random, map.order());
      if (step == 0) map.assign(key, ++value);
      if (step == 1) map.assign_through_the_found_value(key, ++value);
      if (step == 2) map.find_or_insert(key, ++value);
      if (step == 4) map.ask(key);
    }
  }
  map.compare_all();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  Random random{std::span(bytes, count)};
  const qx_test::HeapLog log = qx_test::record_heap(
      [&] { random.percent(50) ? play<qx::Int64Map>(random) : play<qx_test::WideMap>(random); });
  qx_test::require(log.still_held.empty(), "memory is held after the map was released");
  return 0;
}
