#include "state/state.h"

#include <algorithm>

namespace qx::collection {

RowLists::RowLists(const State& state) {
  lists_.reserve(state.parts.size());
  for (const PartView& view : state.parts) {
    if (view.segment != nullptr) {
      lists_.push_back(view.members->lists());
    } else {
      const ListNumber* const first = static_cast<const Tail&>(*view.part).lists();
      lists_.emplace_back(first, first + view.rows);
    }
  }
}

std::vector<const float*> sample_of(const State& state, std::int64_t most) {
  const std::int64_t rows = state.visible_rows();
  const std::int64_t wanted = std::min(rows, most);
  std::vector<const float*> sample;
  sample.reserve(static_cast<std::size_t>(wanted));
  Cursor cursor(state, nullptr);
  Location at;
  for (std::int64_t row = 0; cursor.next(&at); ++row) {
    if (std::ssize(sample) * rows / wanted != row) continue;
    sample.push_back(state.part(at).vector(at.row()));
  }
  return sample;
}

Cursor::Cursor(const State& state, const Key* after) : state_(state), rests_(state.parts.size()) {
  for (std::size_t p = 0; p < state.parts.size(); ++p) {
    if (state.parts[p].segment == nullptr) {
      sort_tail(p, after);
    } else if (after != nullptr) {
      rests_[p].next = state.parts[p].segment->lower_bound(*after);
      const bool found = rests_[p].next < state.parts[p].rows &&
                         state.parts[p].part->key(rests_[p].next) == *after;
      rests_[p].next += found ? 1 : 0;
    }
    advance(p);
  }
}

void Cursor::sort_tail(std::size_t part, const Key* after) {
  const PartView& view = state_.parts[part];
  const auto key = [&](std::int64_t row) { return view.part->key(row); };
  std::vector<std::int64_t>& order = rests_[part].order;
  for (std::int64_t row = 0; row < view.rows; ++row) {
    if (view.is_visible(row) && (after == nullptr || key(row) > *after)) order.push_back(row);
  }
  std::ranges::sort(order, {}, key);
}

std::int64_t Cursor::row_of(std::size_t part) const {
  const Rest& rest = rests_[part];
  const bool is_segment = state_.parts[part].segment != nullptr;
  return is_segment ? rest.next : rest.order[static_cast<std::size_t>(rest.next)];
}

// Puts the next visible row of a part on the heap, if there is one.
void Cursor::advance(std::size_t part) {
  const PartView& view = state_.parts[part];
  Rest& rest = rests_[part];
  const std::int64_t end = view.segment != nullptr ? view.rows : std::ssize(rest.order);
  while (view.segment != nullptr && rest.next < end && !view.is_visible(rest.next)) ++rest.next;
  if (rest.next == end) return;
  heads_.push_back({view.part->key(row_of(part)), part});
  std::push_heap(heads_.begin(), heads_.end());
}

bool Cursor::next(Location* at) {
  if (heads_.empty()) return false;
  std::pop_heap(heads_.begin(), heads_.end());
  const std::size_t part = heads_.back().part;
  heads_.pop_back();
  *at = {part, row_of(part)};
  ++rests_[part].next;
  advance(part);
  return true;
}

}  // namespace qx::collection
