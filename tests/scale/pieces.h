// Host buffers of many gigabytes in little memory: one piece, mapped repeatedly. The contents of
// such a buffer repeat; memory that is written privately gets pages of its own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qx_scale {

// A piece of memory that can be mapped many times. Ends the program if the system refuses.
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

// The target of writes: the shared piece, so that every repetition shows them, or only into this
// mapping.
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

// The bytes that programs can still allocate, by the system's estimate; 0 if there is none.
std::int64_t available_bytes();

}  // namespace qx_scale
