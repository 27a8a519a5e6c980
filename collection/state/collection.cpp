#include "state/collection.h"

#include "lists/kmeans.h"

#if defined(__linux__)
#include <sys/resource.h>
#endif

namespace qx::collection {
namespace {

// Other threads come first.
void lower_priority() {
#if defined(__linux__)
  setpriority(PRIO_PROCESS, 0, 10);  // of this thread
#endif
}

std::shared_ptr<const State> empty_state() { return std::make_shared<const State>(); }

}  // namespace

Collection::Collection(Shape shape, int threads, bool is_manual)
    : shape_(std::move(shape)),
      threads_(threads),
      is_manual_(is_manual),
      state_(empty_state()),
      // The thread is not in a child of a fork, and may have held anything.
      fork_guard_(writing_, [this] { renew(merging_); }) {}

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
    edit.upsert(rows);
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

// Searches and changes go on while the segment is built.
void Collection::merge_segments(Lock& lock, const std::vector<PartView>& parts,
                                const std::function<void(std::int64_t)>& check) {
  const std::shared_ptr<const Lists> lists = state_.get()->lists;
  lock.unlock();
  Sealed sealed = merge(shape_, lists, parts, check);
  lock.lock();
  Edit edit(shape_, *state_.get(), 0);
  edit.replace(parts, std::move(sealed));
  publish(lock, edit);
}

void Collection::compact(const Progress& progress) {
  const Lock running(merging_.running);
  Lock lock(writing_);
  Edit edit(shape_, *state_.get(), 0);
  edit.seal_tail();
  publish(lock, edit);
  const std::shared_ptr<const State> state = state_.get();
  const std::int64_t rows = state->visible_rows();
  const bool is_compact = state->parts.size() == 1 && state->parts[0].dead == 0;
  progress.report(0, rows);
  if (is_compact || state->parts.empty()) return;
  merge_segments(lock, state->parts, [&](std::int64_t done) { progress.report(done, rows); });
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
    constexpr std::int64_t kRowsOfAList = 64;
    const std::vector<const float*> sample = sample_of(*state, kRowsOfAList * count);
    std::int64_t done = tasks_of_training(std::ssize(sample));
    std::int64_t whole = done;
    for (const PartView& view : state->parts) whole += tasks_of_lists(view.rows);
    lists = find_lists(sample, count, shape_.dim, nearness_of(shape_), shape_.budget, threads_,
                       progress, whole);
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
  if (is_manual_ || choose_merged(shape_, *state_.get(), 0).empty()) return;
  merging_.is_wanted = true;
  merging_.changed.notify_one();
  if (!merging_.thread.joinable()) {
    merging_.thread = start_thread([this] { keep_merging(); });
  }
} catch (const std::exception&) {
}

// One merge at a time, until there is none to make or no memory for it.
void Collection::keep_merging() {
  lower_priority();
  Merging& merging = merging_;
  const auto check = [&](std::int64_t) {
    const Lock lock(writing_);
    if (merging.is_ended) throw Error(QX_CANCELLED, "the collection is released");
  };
  while (true) {
    {
      Lock lock(writing_);
      merging.changed.wait(lock, [&] { return merging.is_wanted || merging.is_ended; });
      if (merging.is_ended) return;
      merging.is_wanted = false;
    }
    const Lock running(merging.running);
    Lock lock(writing_);
    try {
      for (std::vector<PartView> parts;
           !(parts = choose_merged(shape_, *state_.get(), 0)).empty();) {
        merge_segments(lock, parts, check);
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
  edit.upsert(rows);
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
