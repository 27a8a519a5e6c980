#include "state/edit.h"

#include <algorithm>
#include <bit>
#include <numeric>

#include "lists/kmeans.h"

namespace qx::collection {
namespace {

// The rows in the order of their ids, of each id the last one.
std::vector<std::size_t> order_of(const std::vector<Key>& keys) {
  std::vector<std::size_t> order(keys.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  const auto key = [&](std::size_t row) -> const Key& { return keys[row]; };
  if (!std::ranges::is_sorted(order, {}, key)) std::ranges::stable_sort(order, {}, key);
  const auto same_id = [&](std::size_t a, std::size_t b) { return keys[a] == keys[b]; };
  const auto last = std::unique(order.rbegin(), order.rend(), same_id);
  order.erase(order.begin(), last.base());
  return order;
}

// A segment of `count` rows, which are asked for by their number: put_vector(row, to) writes one.
template <typename KeyOf, typename PutVector, typename ValueOf>
std::shared_ptr<Segment> build(const Shape& shape, std::size_t count, KeyOf key,
                               PutVector put_vector, ValueOf value,
                               const std::function<void(std::int64_t)>& check) {
  constexpr std::size_t kCheckedRows = 4096;
  constexpr std::int64_t kCachedRows = Extents::kGroupRows;  // derived from before they leave it
  const auto rows = static_cast<std::int64_t>(count);
  SegmentBuilder builder(shape, rows);
  for (std::size_t i = 0; i < count; ++i) {
    if (i % kCheckedRows == 0 && check) check(static_cast<std::int64_t>(i));
    builder.add_id(key(i));
    const auto row = static_cast<std::int64_t>(i);
    put_vector(i, builder.vector(row));
    if ((row + 1) % kCachedRows == 0) builder.complete(row + 1 - kCachedRows, row + 1);
  }
  builder.complete(rows / kCachedRows * kCachedRows, rows);
  for (std::size_t c = 0; c < shape.schema.size(); ++c) {
    builder.add_column(Column::of(shape.schema[c].type, rows, [&](std::int64_t row) {
      return value(static_cast<std::size_t>(row), c);
    }));
  }
  return builder.finish();
}

// Segments of one size, as powers of four, that may stand beside each other. More of them slow
// searches, and fewer make each row be copied more often.
constexpr std::int64_t kMostOfASize = 6;

// Rows of a segment that may be dead. While it is merged, the dead take memory beside the old rows
// and the new ones, so of a large segment they are few; a small one is copied soon enough.
std::int64_t most_dead(const PartView& view, const Shape& shape) {
  return std::max(view.rows / 16, std::min(view.rows / 4, Tail::capacity_of(shape)));
}

bool is_tail(const PartView& view) { return view.segment == nullptr; }

int size_class(const PartView& view, const Shape& shape) {
  std::int64_t least = Tail::capacity_of(shape);
  int size = 0;
  for (; view.rows > 2 * least; least *= 4) ++size;
  return size;
}

}  // namespace

std::vector<PartView> closed_tails(const State& state, std::size_t own) {
  std::vector<PartView> tails;
  std::copy_if(state.parts.begin() + static_cast<std::ptrdiff_t>(own), state.parts.end(),
               std::back_inserter(tails), [](const PartView& view) { return is_tail(view); });
  if (!tails.empty()) tails.pop_back();
  return tails;
}

std::vector<PartView> choose_merged(const Shape& shape, const State& state, std::size_t own) {
  std::vector<PartView> closed = closed_tails(state, own);
  if (!closed.empty()) return closed;
  std::map<int, std::vector<PartView>> sizes;
  for (std::size_t p = own; p < state.parts.size(); ++p) {
    const PartView& view = state.parts[p];
    if (view.segment == nullptr) continue;
    if (view.dead > most_dead(view, shape)) return {view};
    sizes[size_class(view, shape)].push_back(view);
  }
  for (const auto& [size, views] : sizes) {
    if (std::ssize(views) >= kMostOfASize) return views;
  }
  return {};
}

void require_count(QxIds ids) {
  require(ids.count >= 0, [&] { return "the number of ids is " + std::to_string(ids.count); });
}

std::vector<Key> keys_of(const Shape& shape, QxIds ids) {
  require_count(ids);
  std::vector<Key> keys(static_cast<std::size_t>(ids.count));
  if (keys.empty()) return keys;
  const bool given = shape.has_texts ? ids.texts != nullptr : ids.numbers != nullptr;
  require(given, [&] {
    return std::string("the ids of this collection are ") + (shape.has_texts ? "texts" : "numbers");
  });
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!shape.has_texts) {
      keys[i].number = ids.numbers[i];
      continue;
    }
    const QxText& text = ids.texts[i];
    require(text.size >= 0 && (text.data != nullptr || text.size == 0),
            [&] { return "id " + std::to_string(i) + " is no text"; });
    if (text.size > 0) keys[i].text = {text.data, static_cast<std::size_t>(text.size)};
  }
  return keys;
}

void require_finite(const char* what, const float* vectors, std::size_t count, std::int32_t dim,
                    std::size_t first) {
  const std::size_t width = static_cast<std::size_t>(dim);
  const auto is_finite = [](float number) {
    constexpr std::uint32_t kExponent = 0x7F800000u;
    return (std::bit_cast<std::uint32_t>(number) & kExponent) != kExponent;
  };
  for (std::size_t row = 0; row < count; ++row) {
    const float* const vector = vectors + row * width;
    std::uint32_t strange = 0;  // of the width of a component, and without a branch for each
    for (std::size_t i = 0; i < width; ++i) strange |= is_finite(vector[i]) ? 0u : 1u;
    require(strange == 0, [&] {
      const auto place = std::find_if_not(vector, vector + width, is_finite) - vector;
      return "component " + std::to_string(place) + " of " + what + " " +
             std::to_string(first + row) + " is not finite";
    });
  }
}

Rows::Rows(const Shape& shape, QxIds ids, const float* vectors, const QxValues* values)
    : shape_(shape), keys_(keys_of(shape, ids)), vectors_(vectors), values_(values) {
  require(keys_.empty() || vectors != nullptr, [] { return "there are no vectors"; });
  require_finite("vector", vectors, keys_.size(), shape.dim);
  check_values(values, shape.schema, ids.count);
}

const float* Rows::vector(std::size_t row) const {
  return vectors_ + row * static_cast<std::size_t>(shape_.dim);
}

Value Rows::value(std::size_t row, std::size_t column) const {
  if (values_ == nullptr) return {};
  return value_of(values_[column], shape_.schema[column].type, static_cast<std::int64_t>(row));
}

std::vector<PartView>::iterator Edit::tail() {
  const auto end = next_.parts.rend() - static_cast<std::ptrdiff_t>(own_);
  const auto last = std::find_if(next_.parts.rbegin(), end, is_tail);
  return last == end ? next_.parts.end() : std::prev(last.base());
}

void Edit::add(Sealed sealed) {
  sealed.segment->share.set_draft(false);
  if (sealed.members != nullptr) sealed.members->share.set_draft(false);
  const Segment* const segment = sealed.segment.get();
  next_.parts.push_back({std::move(sealed.segment), segment, segment->rows(), 0, 0, nullptr,
                         std::move(sealed.members)});
}

void Edit::upsert(const Rows& rows, std::int64_t most_closed) {
  const std::vector<std::size_t> order = order_of(rows.keys());
  const auto count = static_cast<std::int64_t>(order.size());
  const std::int64_t capacity = Tail::capacity_of(shape_);
  const bool is_bulk = count >= capacity;
  if (!is_bulk && tail() != next_.parts.end() && tail()->rows + count > capacity) {
    close_tail(most_closed);
  }
  find_replaced(rows.keys());
  if (!is_bulk) return append(rows, order);
  std::shared_ptr<Segment> segment = build(
      shape_, order.size(), [&](std::size_t i) { return rows.keys()[order[i]]; },
      [&](std::size_t i, float* to) {
        keep_vector(shape_.metric, rows.vector(order[i]), shape_.dim, to);
      },
      [&](std::size_t i, std::size_t c) { return rows.value(order[i], c); }, {});
  auto members = divide(shape_, next_.lists.get(), *segment, {nullptr, nullptr});
  add({std::move(segment), std::move(members)});
}

void Edit::append(const Rows& rows, const std::vector<std::size_t>& order) {
  if (order.empty()) return;
  if (tail() == next_.parts.end()) open_tail();
  PartView& view = *tail();
  auto& part = static_cast<Tail&>(*view.part);
  texts_before_ = part.texts();
  written_ = &part;
  std::vector<Value> values(shape_.schema.size());
  std::vector<float> space;
  for (const std::size_t row : order) {
    for (std::size_t c = 0; c < values.size(); ++c) values[c] = rows.value(row, c);
    const std::int64_t at = view.rows++;
    part.write(at, rows.keys()[row], rows.vector(row), values);
    if (next_.lists != nullptr) part.lists()[at] = next_.lists->list_of(part.vector(at), space);
  }
}

void Edit::open_tail() {
  next_.parts.push_back({std::make_shared<Tail>(shape_), nullptr, 0, 0, 0, nullptr, nullptr});
}

// The closed ones may be in a merge, and stay; they are closed as long as a newer one is open.
void Edit::close_tail(std::int64_t most_closed) {
  if (std::ssize(closed_tails(next_, own_)) >= most_closed) seal({*tail()});
  open_tail();
}

void Edit::seal_tails() {
  std::vector<PartView> tails = closed_tails(next_, own_);
  if (tail() != next_.parts.end()) tails.push_back(*tail());
  if (!tails.empty()) seal(tails);
}

void Edit::seal(const std::vector<PartView>& tails) {
  replace(tails, merge(shape_, next_.lists, tails, {}));
}

std::int64_t Edit::remove(std::vector<Key> keys) {
  std::ranges::sort(keys);
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return find_replaced(keys);
}

// Notes the rows that the ids have, and allocates what is needed to kill them. An id may repeat.
std::int64_t Edit::find_replaced(const std::vector<Key>& keys) {
  for (const Key& key : keys) {
    const Location at = next_.find(key);
    if (at.exists()) killed_.push_back(at);
  }
  std::ranges::sort(killed_);
  killed_.erase(std::unique(killed_.begin(), killed_.end()), killed_.end());
  for (const Location at : killed_) {
    PartView& view = next_.parts[at.part()];
    if (at.part() >= own_ || view.hidden != nullptr) continue;
    view.hidden = std::make_shared<std::vector<std::uint64_t>>((view.rows + 63) / 64);
  }
  return std::ssize(killed_);
}

void Edit::kill(Location at) {
  PartView& view = next_.parts[at.part()];
  ++view.dead;
  if (at.part() < own_) {
    (*view.hidden)[static_cast<std::size_t>(at.row() / 64)] |= std::uint64_t{1} << at.row() % 64;
  } else {
    view.part->liveness.kill(at.row(), view.seen + 1);
  }
}

// All rows that a change kills in a part die by one number. Where they are only hidden, none has
// died, and the next number is that of a change by the part's owner.
State Edit::commit() noexcept {
  written_ = nullptr;
  for (const Location at : killed_) kill(at);
  for (std::size_t i = 0; i < killed_.size(); ++i) {
    const bool is_last = i + 1 == killed_.size() || killed_[i + 1].part() != killed_[i].part();
    if (is_last && killed_[i].part() >= own_) ++next_.parts[killed_[i].part()].seen;
  }
  return std::move(next_);
}

// Rows that died since they were merged die in the new segment too.
void Edit::replace(const std::vector<PartView>& merged, Sealed sealed) {
  const Segment* const segment = sealed.segment.get();
  for (const PartView& before : merged) {
    const auto now = std::ranges::find(next_.parts, before.part, &PartView::part);
    for (std::int64_t first = 0; segment != nullptr && first < before.rows; first += 64) {
      const std::int64_t count = std::min<std::int64_t>(64, before.rows - first);
      for_each_bit(before.mask(first, count) & ~now->mask(first, count), [&](std::int64_t i) {
        const std::int64_t at = segment->lower_bound(before.part->key(first + i));
        killed_.emplace_back(next_.parts.size() - merged.size(), at);
      });
    }
  }
  std::erase_if(next_.parts, [&](const PartView& view) {
    return std::ranges::find(merged, view.part, &PartView::part) != merged.end();
  });
  if (segment != nullptr) add(std::move(sealed));
}

void Edit::relist(std::shared_ptr<const Lists> lists, Division& division) {
  seal_tails();
  next_.lists = std::move(lists);
  for (PartView& view : next_.parts) {
    std::shared_ptr<const Members>& members = division[view.segment];
    if (members == nullptr) {
      members = divide(shape_, next_.lists.get(), *view.segment, {nullptr, nullptr});
    }
    view.members = members;
  }
}

std::shared_ptr<Members> divide(const Shape& shape, const Lists* lists, const Segment& segment,
                                const Progress& progress) {
  if (lists == nullptr) return nullptr;
  const std::vector<ListNumber> numbers = lists_of(
      *lists, segment.rows(), [&](std::int64_t row) { return segment.vector(row); }, shape.threads,
      progress);
  return std::make_shared<Members>(numbers, lists->count(), shape.budget);
}

namespace {

// The rows of `order` by the lists that they are in.
std::shared_ptr<Members> divide_again(const Shape& shape, const State& state,
                                      const std::vector<Location>& order) {
  if (state.lists == nullptr) return nullptr;
  const RowLists lists(state);
  std::vector<ListNumber> numbers;
  numbers.reserve(order.size());
  for (const Location at : order) numbers.push_back(lists.of(at));
  auto members = std::make_shared<Members>(numbers, state.lists->count(), shape.budget);
  members->share.set_draft(true);
  return members;
}

}  // namespace

Sealed merge(const Shape& shape, const std::shared_ptr<const Lists>& lists,
             const std::vector<PartView>& parts, const std::function<void(std::int64_t)>& check) {
  const State state{parts, lists};
  std::vector<Location> order;
  order.reserve(static_cast<std::size_t>(state.visible_rows()));
  Cursor cursor(state, nullptr);
  for (Location at; cursor.next(&at);) order.push_back(at);
  if (order.empty()) return {};
  std::shared_ptr<Segment> segment = build(
      shape, order.size(), [&](std::size_t i) { return state.key(order[i]); },
      [&](std::size_t i, float* to) {
        std::copy_n(state.part(order[i]).vector(order[i].row()), shape.dim, to);
      },
      [&](std::size_t i, std::size_t c) { return state.part(order[i]).value(order[i].row(), c); },
      check);
  return {std::move(segment), divide_again(shape, state, order)};
}

}  // namespace qx::collection
