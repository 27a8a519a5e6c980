// A collection: the published state, its one writer at a time, and the thread that merges segments
// and makes the codes of those that lack them.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "state/edit.h"
#include "threads/fork.h"
#include "threads/pool.h"
#include "threads/published.h"

namespace qx::collection {

class Collection {
 public:
  Collection(Shape shape, bool is_manual);
  ~Collection();
  Collection(const Collection&) = delete;

  const Shape& shape() const { return shape_; }
  std::shared_ptr<const State> state() const { return state_.get(); }

  void upsert(const Rows& rows);
  std::int64_t remove(std::vector<Key> keys);
  void compact(const Progress& progress);
  // Divides the rows into so many lists; 0: none.
  void train(std::int64_t count, const Progress& progress);

  // Adds a segment whose ids have no row, and the lists that it is divided by. For an empty
  // collection.
  void adopt(Sealed sealed, std::shared_ptr<const Lists> lists);

 private:
  using Lock = std::unique_lock<std::mutex>;

  // What another thread does when parts are to be merged. A child of a fork has another one.
  struct Merging {
    std::mutex running;  // held during a merge
    std::condition_variable changed;
    std::vector<std::shared_ptr<Part>> replaced;  // whose memory is to be given back
    bool is_wanted = false;
    bool is_ended = false;
    std::thread thread;
  };

  template <typename Change>
  auto change(Change make);
  void publish(const Lock&, Edit& edit);
  void merge_parts(Lock& lock, std::vector<PartView> parts,
                   const std::function<void(std::int64_t)>& check);
  void seal_closed_tails() noexcept;
  void release_replaced(Lock& lock) noexcept;
  void abandon_merging() noexcept;
  void want_merging(const Lock&) noexcept;
  void make_codes(Lock& lock, const std::function<void()>& check);
  void keep_merging();
  void end_merging();

  const Shape shape_;
  const bool is_manual_;
  std::mutex writing_;
  Published<State> state_;
  Merging merging_;
  ForkGuard fork_guard_;
};

// The rows that one caller sees: those of a collection at one moment, and its own changes.
class View {
 public:
  explicit View(const Collection& collection)
      : shape_(collection.shape()), state_(*collection.state()), own_(state_.parts.size()) {}

  const State& state() const { return state_; }
  void upsert(const Rows& rows);
  std::int64_t remove(std::vector<Key> keys);
  const Shape& shape() const { return shape_; }

 private:
  void merge_segments() noexcept;

  const Shape& shape_;
  State state_;
  std::size_t own_;
};

}  // namespace qx::collection
