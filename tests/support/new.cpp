// Allocations of C++ as calls of malloc and free, so that those of the standard library reach the
// heap of heap.h too. For programs that link this file. All forms are here, since those of a
// sanitizer do not call one another.
#include <cstdlib>
#include <new>

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(bytes > 0 ? bytes : 1);
}
void* operator new(std::size_t bytes) {
  void* const block = operator new(bytes, std::nothrow);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
