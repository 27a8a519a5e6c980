// What goes wrong: an exception inside, a status and a message at the interface.
#pragma once

#include <stdexcept>
#include <string>

// The library is compiled with hidden visibility; the functions of the public header are not.
#pragma GCC visibility push(default)
#include "qx_collection.h"
#pragma GCC visibility pop

namespace qx::collection {

// A call that is refused. Memory that is not there is std::bad_alloc.
class Error : public std::runtime_error {
 public:
  Error(int32_t status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int32_t status() const { return status_; }

 private:
  int32_t status_;
};

[[noreturn]] inline void refuse(const std::string& message) { throw Error(QX_INVALID, message); }

// Throws if the condition does not hold. `message` makes the text, only when it is needed.
template <typename Message>
void require(bool condition, Message message) {
  if (!condition) refuse(message());
}

}  // namespace qx::collection
