// Host buffers of many gigabytes in little memory: one piece, mapped repeatedly. The contents of
// such a buffer repeat; memory that is written privately gets pages of its own.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace qx_scale {

// Ends the program if the system refuses.
inline void require(bool granted, const char* what) {
  if (granted) return;
  std::perror(what);
  std::exit(1);
}

// A mapping of memory.
class Mapped {
 public:
  Mapped(std::size_t bytes, int protection, int flags, int file)
      : bytes_(bytes), data_(mmap(nullptr, bytes, protection, flags, file, 0)) {
    require(data_ != MAP_FAILED, "mmap");
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;
  ~Mapped() { munmap(data_, bytes_); }

  std::size_t bytes() const { return bytes_; }

  template <typename T>
  T* as() const {
    return static_cast<T*>(data_);
  }

 private:
  std::size_t bytes_;
  void* data_;
};

inline int file_of(std::size_t bytes) {
  const int file = memfd_create("piece", 0);
  require(file >= 0 && ftruncate(file, static_cast<off_t>(bytes)) == 0, "memfd_create");
  return file;
}

// A piece of memory, of whole pages, that can be mapped many times.
class Piece : public Mapped {
 public:
  explicit Piece(std::size_t bytes) : Piece(bytes, file_of(bytes)) {}
  ~Piece() { close(file_); }

  int file() const { return file_; }

 private:
  Piece(std::size_t bytes, int file)
      : Mapped(bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file), file_(file) {}

  int file_;
};

// The target of writes: the shared piece, so that every repetition shows them, or only into this
// mapping.
enum class Writes { kShared, kPrivate };

class Repeated : public Mapped {
 public:
  Repeated(const Piece& piece, std::size_t bytes, Writes writes)
      : Mapped(bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1) {
    const int sharing = writes == Writes::kShared ? MAP_SHARED : MAP_PRIVATE | MAP_NORESERVE;
    for (std::size_t at = 0; at < bytes; at += piece.bytes()) {
      require(mmap(as<char>() + at, std::min(piece.bytes(), bytes - at), PROT_READ | PROT_WRITE,
                   sharing | MAP_FIXED, piece.file(), 0) != MAP_FAILED,
              "mmap");
    }
  }
};

}  // namespace qx_scale
