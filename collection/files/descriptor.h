// Open files and folders.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "support/error.h"

namespace qx::collection {

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  ~Descriptor() { close(fd_); }
  int get() const { return fd_; }

 private:
  int fd_;
};

// What a system call returned, which is called again where a signal has interrupted it. Throws if
// it fails.
template <typename Call>
auto checked(const char* what, Call call) {
  while (true) {
    const auto result = call();
    if (result >= 0) return result;
    if (errno == EINTR) continue;
    const std::error_code why(errno, std::generic_category());
    throw Error(QX_IO_ERROR, what + (": " + why.message()));
  }
}

// Calls body(), and names the file in what it throws.
template <typename Body>
auto naming(const char* path, Body body) {
  try {
    return body();
  } catch (const Error& error) {
    if (error.status() == QX_CANCELLED) throw;
    const int32_t status = error.status() == QX_IO_ERROR ? QX_IO_ERROR : QX_CORRUPT;
    throw Error(status, path + (": " + std::string(error.what())));
  }
}

}  // namespace qx::collection
