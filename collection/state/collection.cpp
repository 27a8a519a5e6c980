#include "state/collection.h"

#include <algorithm>
#include <chrono>

#include "lists/kmeans.h"

#if defined(__linux__)
#include <sys/resource.h>
#endif

namespace qx::collection {
namespace {

// While a large merge is made, full tails wait for the next check of it. More of them than this
// would slow searches.
constexpr std::int64_t kMostClosedTails = 4;

// Other threads come first.
void lower_priority() {
#if defined(__linux__)
  setpriority(PRIO_PROCESS, 0, 10);  // of this thread
#endif
}

bool lacks_codes(const PartView& view) {
  return view.segment != nullptr && view.segment->lacks_codes();
}

std::shared_ptr<const State> empty_state() { return std::make_shared<const State>(); }

}  // namespace

Collection::Collection(Shape shape, bool is_manual)
    : shape_(std::move(shape)),
      is_manual_(is_manual),
      state_(empty_state()),
      // The thread is not in a child of a fork, and may have held anything.
      fork_guard_(writing_, [this] { abandon_merging(); }) {}

Collection::~Collection() { end_merging(); }

// The state is allocated before the changes are made.
void Collection::publish(const Lock&, Edit& edit) {
  auto next = std::make_shared<State>();
  auto pointer = std::make_unique<std::shared_ptr<const State>>(next);
  *next = edit.commit();
  state_.set(std::move(pointer));
}

template <typename Change>
auto Collection::change(Change make) {
  const Lock lock(writing_);
  const std::shared_ptr<const State> before = state_.get();
  Edit edit(shape_, *before, 0);
  const auto result = make(edit);
  publish(lock, edit);
  want_merging(lock);
  return result;
}

void Collection::upsert(const Rows& rows) {
  change([&](Edit& edit) {
    edit.upsert(rows, is_manual_ ? 0 : kMostClosedTails);
    return true;
  });
}

std::int64_t Collection::remove(std::vector<Key> keys) {
  return change([&](Edit& edit) { return edit.remove(std::move(keys)); });
}

void Collection::adopt(Sealed sealed, std::shared_ptr<const Lists> lists) {
  change([&](Edit& edit) {
    Division division{{sealed.segment.get(), sealed.members}};
    edit.replace({}, std::move(sealed));
    edit.relist(std::move(lists), division);
    return true;
  });
}

// ---- Merging ----

// Searches and changes go on while the segment is built. The state keeps the parts alive meanwhile,
// since only merges take parts out of it; this thread does not, since a fork would leave that
// behind.
void Collection::merge_parts(Lock& lock, std::vector<PartView> parts,
                             const std::function<void(std::int64_t)>& check) {
  for (PartView& view : parts) view.part = {std::shared_ptr<Part>(), view.part.get()};
  const std::shared_ptr<const Lists> lists = state_.get()->lists;
  lock.unlock();
  Sealed sealed = merge(shape_, lists, parts, [&](std::int64_t done) {
    check(done);
    if (parts.front().segment != nullptr) seal_closed_tails();
  });
  lock.lock();
  {
    const std::shared_ptr<const State> before = state_.get();
    Edit edit(shape_, *before, 0);
    edit.replace(parts, std::move(sealed));
    merging_.replaced.reserve(parts.size());
    publish(lock, edit);
    for (const PartView& view : parts) {
      const auto old = std::ranges::find(before->parts, view.part, &PartView::part);
      merging_.replaced.push_back(old->part);
    }
  }
  release_replaced(lock);
}

// A large merge must not make full tails wait for its end.
void Collection::seal_closed_tails() noexcept try {
  Lock lock(writing_);
  std::vector<PartView> closed = closed_tails(*state_.get(), 0);
  if (!closed.empty()) merge_parts(lock, std::move(closed), [](std::int64_t) {});
} catch (const std::exception&) {  // they wait for the next one
}

// Whoever drops the last reference gives the memory back, which takes long where it is large. Most
// readers leave soon, so that is this thread, and none of them.
void Collection::release_replaced(Lock& lock) noexcept {
  constexpr std::int64_t kLargeBytes = std::int64_t{16} << 20;
  constexpr int kMostPolls = 200;
  std::vector<std::shared_ptr<Part>>& replaced = merging_.replaced;
  const auto is_read = [](const std::shared_ptr<Part>& part) { return part.use_count() > 1; };
  const auto is_waited_for = [&](const std::shared_ptr<Part>& part) {
    return is_read(part) && part->share.bytes() >= kLargeBytes;
  };
  for (int polls = 0; polls < kMostPolls && std::ranges::any_of(replaced, is_waited_for); ++polls) {
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::microseconds(100));
    lock.lock();
  }
  std::erase_if(replaced, is_read);
  for (const std::shared_ptr<Part>& part : replaced) part->share.set_draft(true);
  std::vector<std::shared_ptr<Part>> released = std::move(replaced);
  lock.unlock();
  released.clear();
  lock.lock();
}

// In the child of a fork.
void Collection::abandon_merging() noexcept {
  merging_.replaced.clear();
  shape_.budget->forget_drafts();
  renew(merging_);
}

void Collection::compact(const Progress& progress) {
  const Lock running(merging_.running);
  Lock lock(writing_);
  Edit edit(shape_, *state_.get(), 0);
  edit.seal_tails();
  publish(lock, edit);
  State state = *state_.get();
  const std::int64_t rows = state.visible_rows();
  const bool is_compact = state.parts.size() == 1 && state.parts[0].dead == 0;
  progress.report(0, rows);
  if (is_compact || state.parts.empty()) return;
  merge_parts(lock, std::move(state.parts),
              [&](std::int64_t done) { progress.report(done, rows); });
}

// ---- Lists ----

// Searches and changes go on until the last step, which divides what has come meanwhile. Segments
// are not merged, so that most of them are still there.
void Collection::train(std::int64_t count, const Progress& progress) {
  const Lock running(merging_.running);
  const std::shared_ptr<const State> state = state_.get();
  require(count <= state->visible_rows(), [&] {
    return std::to_string(count) + " lists of " + std::to_string(state->visible_rows()) + " rows";
  });
  std::shared_ptr<const Lists> lists;
  Division division;
  if (count > 0) {
    const std::vector<const float*> sample = sample_of(*state, rows_of_sample(count));
    std::int64_t done = tasks_of_training(std::ssize(sample), count);
    std::int64_t whole = done;
    for (const PartView& view : state->parts) whole += tasks_of_lists(view.rows);
    lists = find_lists(sample, count, shape_.dim, nearness_of(shape_), shape_.budget,
                       shape_.threads, progress, whole);
    for (const PartView& view : state->parts) {
      if (view.segment == nullptr) continue;
      division[view.segment] =
          divide(shape_, lists.get(), *view.segment, progress.part(done, whole));
      done += tasks_of_lists(view.rows);
    }
    progress.report(whole, whole);
  }
  const Lock lock(writing_);
  Edit edit(shape_, *state_.get(), 0);
  edit.relist(std::move(lists), division);
  publish(lock, edit);
}

// ---- Merging, by a thread ----

// Starts the thread, or wakes it. The change has been made: without a thread, or memory, segments
// wait for the next one.
void Collection::want_merging(const Lock&) noexcept try {
  const std::shared_ptr<const State> state = state_.get();
  const bool is_due =
      std::ranges::any_of(state->parts, lacks_codes) || !choose_merged(shape_, *state, 0).empty();
  if (is_manual_ || !is_due) return;
  merging_.is_wanted = true;
  merging_.changed.notify_one();
  if (!merging_.thread.joinable()) {
    merging_.thread = start_thread([this] { keep_merging(); });
  }
} catch (const std::exception&) {
}

// Before anything else, since searches are slower without. The state keeps the segments alive, as
// in merge_parts().
void Collection::make_codes(Lock& lock, const std::function<void()>& check) {
  std::vector<Segment*> segments;
  for (const PartView& view : state_.get()->parts) {
    if (lacks_codes(view)) segments.push_back(static_cast<Segment*>(view.part.get()));
  }
  lock.unlock();
  for (Segment* const segment : segments) segment->make_codes(check);
  lock.lock();
}

// One merge at a time, until there is none to make or no memory for it.
void Collection::keep_merging() {
  Merging& merging = merging_;
  const auto check = [&] {
    const Lock lock(writing_);
    if (merging.is_ended) throw Error(QX_CANCELLED, "the collection is released");
  };
  const auto is_wanted = [&] {
    Lock lock(writing_);
    merging.changed.wait(lock, [&] { return merging.is_wanted || merging.is_ended; });
    merging.is_wanted = false;
    return !merging.is_ended;
  };
  try {
    const Lock running(merging.running);
    Lock lock(writing_);
    make_codes(lock, check);
  } catch (const std::exception&) {  // searches do without
  }
  lower_priority();
  while (is_wanted()) {
    const Lock running(merging.running);
    Lock lock(writing_);
    try {
      for (std::vector<PartView> parts;
           !(parts = choose_merged(shape_, *state_.get(), 0)).empty();) {
        merge_parts(lock, std::move(parts), [&](std::int64_t) { check(); });
      }
    } catch (const std::exception&) {
      // Nothing has changed. The next change that wants a merge tries again.
    }
  }
}

void Collection::end_merging() {
  {
    const Lock lock(writing_);
    merging_.is_ended = true;
    merging_.changed.notify_one();
  }
  if (merging_.thread.joinable()) merging_.thread.join();
}

// ---- Views ----

void View::upsert(const Rows& rows) {
  Edit edit(shape_, state_, own_);
  edit.upsert(rows, 0);
  state_ = edit.commit();
  merge_segments();
}

std::int64_t View::remove(std::vector<Key> keys) {
  Edit edit(shape_, state_, own_);
  const std::int64_t removed = edit.remove(std::move(keys));
  state_ = edit.commit();
  return removed;
}

// Of a transaction that writes a lot. Without memory for it, later.
void View::merge_segments() noexcept try {
  const std::vector<PartView> parts = choose_merged(shape_, state_, own_);
  if (parts.empty()) return;
  Edit edit(shape_, state_, own_);
  edit.replace(parts, merge(shape_, state_.lists, parts, {}));
  state_ = edit.commit();
} catch (const std::bad_alloc&) {
}

}  // namespace qx::collection
