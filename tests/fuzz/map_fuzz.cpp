// Bytes choose assignments to the map and look-ups, also of keys with equal hashes; it must answer
// like a standard map and keep the order of first insertion.
#include <unordered_map>
#include <vector>

#include "fuzz/target.h"
#include "internal/colliding_keys.h"
#include "support/heap.h"
#include "support/int64_map.h"
#include "support/random.h"

namespace {

using qx_test::Random;
using qx_test::require;
using Keys = std::vector<std::int64_t>;

template <typename Map>
class Play {
 public:
  explicit Play(Random& random) : random_(random) {}
  ~Play() { map_.release(); }
  Play(const Play&) = delete;
  Play& operator=(const Play&) = delete;

  void run() {
    while (!random_.exhausted()) {
      switch (random_.between(0, 5)) {
        case 0:
          assign();
          break;
        case 1:
          assign_through_the_found_value();
          break;
        case 2:
          find_or_insert();
          break;
        case 3:
          assign_batch();
          break;
        case 4:
          ask(draw_key());
          break;
        default:
          ask_batch();
          break;
      }
    }
    compare_all();
  }

 private:
  std::int64_t draw_key() {
    switch (random_.between(0, 4)) {
      case 0:
        return random_.between(-4, 250);
      case 1:
        return qx_test::colliding_key(static_cast<std::uint64_t>(random_.between(0, 255)));
      case 2:
        return order_.empty() ? 0 : random_.any_of(order_);
      case 3:
        return static_cast<std::int64_t>(random_.bits());
      default:
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(random_.between(0, 255))
                                         << random_.between(0, 63));
    }
  }

  // Consecutive keys in the order of the entries, with absent ones among them; or any keys.
  Keys draw_keys(std::int64_t most) {
    Keys keys;
    const std::int64_t count = random_.between(0, most);
    const std::int64_t known = std::ssize(order_);
    const bool in_order = known > 0 && random_.percent(60);
    const std::int64_t first = in_order ? random_.between(0, known - 1) : 0;
    Random& random = random_.for_array(count);
    for (std::int64_t i = 0; i < count; ++i) {
      const bool stranger = !in_order || random.percent(10);
      keys.push_back(stranger ? random.between(-600, 1200)
                              : order_[static_cast<std::size_t>((first + i) % known)]);
    }
    return keys;
  }

  void note(std::int64_t key, std::int64_t value) {
    if (model_.count(key) == 0) order_.push_back(key);
    model_[key] = value;
  }

  void assign() {
    const std::int64_t key = draw_key();
    map_.assign(key, ++value_);
    note(key, value_);
  }

  void assign_through_the_found_value() {
    const std::int64_t key = draw_key();
    std::int64_t* const found = map_.find(key);
    require((found != nullptr) == (model_.count(key) != 0), "a key is found or not");
    if (found == nullptr) return;
    *found = ++value_;
    model_[key] = value_;
  }

  void find_or_insert() {
    const std::int64_t key = draw_key();
    const bool known = model_.count(key) != 0;
    bool inserted = false;
    const std::int64_t value = *map_.find_or_insert(key, ++value_, &inserted);
    require(inserted != known, "a key is new or not");
    if (!known) note(key, value_);
    require(value == model_[key], "the value found or inserted");
  }

  void assign_batch() {
    const Keys keys = draw_keys(300);
    const std::int64_t base = value_;
    map_.assign_batch(keys.data(), std::ssize(keys), [&](std::int64_t i) { return base + i; });
    for (const std::int64_t key : keys) note(key, value_++);
  }

  void ask(std::int64_t key) {
    const auto known = model_.find(key);
    require(map_.contains(key) == (known != model_.end()), "a key is contained or not");
    require(map_.get(key, -7) == (known == model_.end() ? -7 : known->second), "a value");
  }

  void ask_batch() {
    typename Map::Cursor cursor;
    for (std::int64_t batch = random_.between(1, 3); batch > 0; --batch) {
      const Keys keys = draw_keys(Map::kBatch);
      Keys values(keys.size());
      map_.get_batch(keys.data(), std::ssize(keys), -7, values.data(), cursor);
      for (std::size_t i = 0; i < keys.size(); ++i) {
        const auto known = model_.find(keys[i]);
        require(values[i] == (known == model_.end() ? -7 : known->second), "a value of a batch");
      }
    }
  }

  void compare_all() {
    require(map_.size() == std::ssize(order_), "the number of keys");
    Keys listed;
    for (const auto& entry : map_) {
      listed.push_back(entry.key);
      require(entry.value == model_[entry.key], "the value of an entry");
      ask(entry.key);
    }
    require(listed == order_, "the order of first insertion");
  }

  Random& random_;
  Map map_;
  std::unordered_map<std::int64_t, std::int64_t> model_;
  Keys order_;
  std::int64_t value_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  Random random{std::span(bytes, count)};
  const qx_test::HeapLog log = qx_test::record_heap([&] {
    if (random.percent(50)) {
      Play<qx::Int64Map>(random).run();
    } else {
      Play<qx::BasicInt64Map<4>>(random).run();  // wide table slots from 32 of them on
    }
  });
  require(log.still_held.empty(), "memory is held after the map was released");
  return 0;
}
