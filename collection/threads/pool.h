// The threads that all collections share. It knows tasks, not what they do.
#pragma once

#include <cstdint>
#include <functional>
#include <thread>

#include "support/error.h"

namespace qx::collection {

// How many CPUs this process may use.
int cpus();

// Starts a thread of the library. It takes no signals of the host, and computes in the default
// floating-point environment; the library stays loaded from then on, so that no thread loses its
// code. Throws if the system refuses.
std::thread start_thread(std::function<void()> body);

// Tells the host how far a long call is, and hears whether to go on.
class Progress {
 public:
  Progress(QxProgress callback, void* context) : callback_(callback), context_(context) {}

  // For a part of the work, before which `before` of `whole` are done.
  Progress part(std::int64_t before, std::int64_t whole) const {
    Progress part = *this;
    part.before_ = before;
    part.whole_ = whole;
    return part;
  }

  // Throws Error(QX_CANCELLED) if the host cancels. Must be called on the host's thread.
  void report(std::int64_t done, std::int64_t total) const;

 private:
  QxProgress callback_;  // null: nobody wants to know
  void* context_;
  std::int64_t before_ = 0;
  std::int64_t whole_ = 0;  // of a part
};

// Calls task(i, worker) once for each i from 0 to tasks - 1, in that order but on up to `threads`
// threads at the same time, the calling one among them; `worker` is below `threads` and tells the
// threads of this call apart. After an exception or a cancellation no further task is started; the
// first one is thrown here, after the last task has ended. Progress is reported from the calling
// thread, after each of its tasks: how many have ended on all threads. Tasks must not call this
// function.
void parallel_for(std::int64_t tasks, int threads, const Progress& progress,
                  const std::function<void(std::int64_t task, int worker)>& task);

}  // namespace qx::collection
