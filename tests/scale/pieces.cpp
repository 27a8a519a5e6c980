#include "scale/pieces.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace qx_scale {
namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

void* map(void* place, std::size_t bytes, int protection, int flags, int file) {
  void* const mapped = mmap(place, bytes, protection, flags, file, 0);
  if (mapped == MAP_FAILED) fail("mmap");
  return mapped;
}

}  // namespace

Piece::Piece(std::size_t bytes) : bytes_(bytes), file_(memfd_create("piece", 0)) {
  if (file_ < 0) fail("memfd_create");
  if (ftruncate(file_, static_cast<off_t>(bytes)) != 0) fail("ftruncate");
  data_ = map(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_);
}

Piece::~Piece() {
  munmap(data_, bytes_);
  close(file_);
}

Repeated::Repeated(const Piece& piece, std::size_t bytes, Writes writes)
    : bytes_(bytes),
      data_(map(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1)) {
  const int sharing = writes == Writes::kShared ? MAP_SHARED : MAP_PRIVATE | MAP_NORESERVE;
  for (std::size_t at = 0; at < bytes; at += piece.bytes()) {
    map(as<char>() + at, std::min(piece.bytes(), bytes - at), PROT_READ | PROT_WRITE,
        sharing | MAP_FIXED, piece.file());
  }
}

Repeated::~Repeated() { munmap(data_, bytes_); }

std::int64_t available_bytes() {
  std::FILE* const file = std::fopen("/proc/meminfo", "re");
  if (file == nullptr) return 0;
  char line[200];
  long long kibibytes = 0;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    if (std::sscanf(line, "MemAvailable: %lld kB", &kibibytes) == 1) break;
  }
  std::fclose(file);
  return kibibytes * 1024;
}

}  // namespace qx_scale
