// Host buffers that detect any access outside them: each begins or ends at an unmapped page, and
// the other side is filled with a pattern that is checked.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qx_test {

enum class Edge { kEnd, kStart };

// One mapping between two unmapped pages, for buffers of changing size, one at a time.
class GuardedPages {
 public:
  GuardedPages() = default;
  GuardedPages(const GuardedPages&) = delete;
  GuardedPages& operator=(const GuardedPages&) = delete;
  ~GuardedPages() { unmap(); }

  // Memory of `bytes` bytes at the given edge; everything else is filled with the pattern.
  unsigned char* place(std::size_t bytes, Edge edge) {
    if (usable_ == 0 || bytes > usable_) map(bytes == 0 ? 1 : bytes);
    bytes_ = bytes;
    start_ = edge == Edge::kEnd || bytes == 0 ? first_ + (usable_ - bytes) : first_;
    for_each_margin([](unsigned char* at, std::size_t count) { std::memset(at, kPattern, count); });
    return start_;
  }

  // True if the bytes near the buffer still have the pattern.
  bool margins_intact() const {
    bool intact = true;
    for_each_margin([&](const unsigned char* at, std::size_t count) {
      for (std::size_t i = 0; i < count; ++i) intact &= at[i] == kPattern;
    });
    return intact;
  }

 private:
  static constexpr unsigned char kPattern = 0xA5;
  static constexpr std::size_t kMargin = 256;

  // The mapped bytes shortly before and after the buffer.
  template <typename Visit>
  void for_each_margin(Visit visit) const {
    const auto before = static_cast<std::size_t>(start_ - first_);
    const std::size_t after = usable_ - before - bytes_;
    const std::size_t near_before = before < kMargin ? before : kMargin;
    visit(start_ - near_before, near_before);
    visit(start_ + bytes_, after < kMargin ? after : kMargin);
  }

  void map(std::size_t bytes) {
    unmap();
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    usable_ = (bytes + page - 1) / page * page;
    mapped_ = usable_ + 2 * page;
    void* const base =
        mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) {
      std::perror("mmap");
      std::abort();
    }
    first_ = static_cast<unsigned char*>(base) + page;
    if (mprotect(first_, usable_, PROT_READ | PROT_WRITE) != 0) {
      std::perror("mprotect");
      std::abort();
    }
  }

  void unmap() {
    if (mapped_ == 0) return;
    munmap(first_ - (mapped_ - usable_) / 2, mapped_);
    mapped_ = usable_ = 0;
  }

  unsigned char* first_ = nullptr;
  std::size_t usable_ = 0;
  std::size_t mapped_ = 0;
  unsigned char* start_ = nullptr;
  std::size_t bytes_ = 0;
};

// A guarded array of T. Even without elements it has an address, which must not be accessed.
template <typename T>
class Guarded {
 public:
  Guarded() { place(0, Edge::kEnd); }
  explicit Guarded(std::size_t count, T fill = T(), Edge edge = Edge::kEnd) {
    assign(std::vector<T>(count, fill), edge);
  }
  explicit Guarded(const std::vector<T>& values, Edge edge = Edge::kEnd) { assign(values, edge); }

  // Replaces the array by these values.
  void assign(const std::vector<T>& values, Edge edge = Edge::kEnd) {
    place(values.size(), edge);
    if (!values.empty()) std::memcpy(data_, values.data(), values.size() * sizeof(T));
  }

  T* data() { return data_; }
  const T* data() const { return data_; }
  std::size_t size() const { return size_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  std::vector<T> values() const { return std::vector<T>(data_, data_ + size_); }

  // Compares bits.
  bool equals(const std::vector<T>& values) const {
    return values.size() == size_ &&
           (size_ == 0 || std::memcmp(values.data(), data_, size_ * sizeof(T)) == 0);
  }
  bool margins_intact() const { return pages_.margins_intact(); }

 private:
  void place(std::size_t count, Edge edge) {
    size_ = count;
    data_ = reinterpret_cast<T*>(pages_.place(count * sizeof(T), edge));
  }

  GuardedPages pages_;
  T* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace qx_test
