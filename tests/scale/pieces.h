// Host buffers of many gigabytes in little memory: one piece, mapped again and again. What such a
// buffer holds repeats; a place that is written privately gets a page of its own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx_scale {

// A piece of memory that can be mapped many times. Ends the program where the system refuses.
class Piece {
 public:
  // `bytes` is a multiple of kPageBytes.
  explicit Piece(std::size_t bytes);
  Piece(const Piece&) = delete;
  Piece& operator=(const Piece&) = delete;
  ~Piece();

  static constexpr std::size_t kPageBytes = 4096;

  std::size_t bytes() const { return bytes_; }
  int file() const { return file_; }

  template <typename T>
  T* as() const {
    return static_cast<T*>(data_);
  }

 private:
  std::size_t bytes_;
  int file_;
  void* data_;
};

// Where writes go: into the piece, so that every repetition shows them, or into the one place.
enum class Writes { kShared, kPrivate };

class Repeated {
 public:
  Repeated(const Piece& piece, std::size_t bytes, Writes writes);
  Repeated(const Repeated&) = delete;
  Repeated& operator=(const Repeated&) = delete;
  ~Repeated();

  template <typename T>
  T* as() const {
    return static_cast<T*>(data_);
  }

 private:
  std::size_t bytes_;
  void* data_;
};

// The bytes that programs can still take, by the system's estimate; 0 if it makes none.
std::int64_t available_bytes();

}  // namespace qx_scale
