// Messages as they come from and go to a socket.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "wire.h"

namespace qx::postgresql {

// A message that is not as wire.h says.
struct Malformed : std::runtime_error {
  Malformed() : std::runtime_error("a message is malformed") {}
};

class Reader {
 public:
  explicit Reader(std::span<const char> body) : left_(body) {}

  template <typename T>
  T get() {
    T value;
    copy(&value, sizeof value);
    return value;
  }
  template <typename T>
  std::vector<T> array(std::int64_t count) {
    if (count < 0 || static_cast<std::uint64_t>(count) > left_.size() / sizeof(T))
      throw Malformed();
    std::vector<T> values(static_cast<std::size_t>(count));
    copy(values.data(), values.size() * sizeof(T));
    return values;
  }
  std::string text() {
    const auto bytes = array<char>(get<std::int32_t>());
    return {bytes.begin(), bytes.end()};
  }
  std::span<const char> rest() const { return left_; }

 private:
  void copy(void* to, std::size_t size) {
    if (size > left_.size()) throw Malformed();
    if (size > 0) std::memcpy(to, left_.data(), size);
    left_ = left_.subspan(size);
  }

  std::span<const char> left_;
};

class Writer {
 public:
  template <typename T>
  void put(const T& value) {
    array(&value, 1);
  }
  template <typename T>
  void array(const T* values, std::size_t count) {
    const char* const bytes = reinterpret_cast<const char*>(values);
    if (count > 0) body_.insert(body_.end(), bytes, bytes + count * sizeof(T));
  }
  void text(const std::string& value) {
    put(static_cast<std::int32_t>(value.size()));
    array(value.data(), value.size());
  }
  std::span<const char> body() const { return body_; }

 private:
  std::vector<char> body_;
};

// False where the other end has closed.
bool receive(int socket, QxHeader& header, std::vector<char>& body);
bool send(int socket, std::uint32_t kind, std::span<const char> body);

}  // namespace qx::postgresql
