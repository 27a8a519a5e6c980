// The handles of the C interface, and how exceptions become statuses.
#pragma once

#include "state/collection.h"
#include "support/fp_environment.h"

// The schema as the host sees it stays beside the collection.
struct QxCollection {
  qx::collection::Collection collection;
  std::vector<QxColumn> columns;

  QxCollection(qx::collection::Shape shape, bool is_manual);
};

struct QxView {
  qx::collection::View view;
};

namespace qx::collection {

// Notes what is wrong, for qx_collection_message, and gives its status.
std::int32_t note_failure(std::int32_t status, const char* text) noexcept;

// Calls work(), in the default floating-point environment, and gives the status of what it throws.
template <typename Work>
std::int32_t status_of(Work work) noexcept {
  try {
    in_default_fp_environment(work);
    return QX_OK;
  } catch (const Error& error) {
    return note_failure(error.status(), error.what());
  } catch (const std::bad_alloc&) {
    return note_failure(QX_OUT_OF_MEMORY, "there is no memory for that, or it is above the limit");
  } catch (const std::exception& error) {
    return note_failure(QX_OUT_OF_MEMORY, error.what());
  } catch (...) {
    return note_failure(QX_CANCELLED, "a callback of the host has thrown");
  }
}

// What a host must give.
template <typename T>
T& given(T* pointer, const char* what) {
  require(pointer != nullptr, [&] { return std::string(what) + " is null"; });
  return *pointer;
}

// The state that a read sees, for as long as this lives.
class Reading {
 public:
  Reading(const QxCollection* collection, const QxView* view)
      : shape_(given(collection, "the collection").collection.shape()),
        current_(view == nullptr ? collection->collection.state() : nullptr),
        state_(view == nullptr ? *current_ : view->view.state()) {
    require(view == nullptr || &view->view.shape() == &shape_,
            [] { return std::string("the view is of another collection"); });
  }
  const State& state() const { return state_; }
  const Shape& shape() const { return shape_; }

 private:
  const Shape& shape_;
  std::shared_ptr<const State> current_;
  const State& state_;
};

// An empty collection. Refuses options that are no options.
std::unique_ptr<QxCollection> new_collection(const QxOptions& wanted);

// Refuses options that are no options, those aside that a file tells.
void check_options(const QxOptions& options);

// How many threads a call may use.
inline int threads_of(const QxOptions& options) {
  return options.threads == 0 ? cpus() : options.threads;
}

}  // namespace qx::collection
