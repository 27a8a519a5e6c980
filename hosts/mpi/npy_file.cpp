#include "npy_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

namespace qx {
namespace {

static_assert(std::endian::native == std::endian::little, "the files are little-endian");

constexpr std::int64_t kMostRows = std::int64_t{1} << 40;

// The text after 'key': in the header's dictionary, up to the comma or bracket that ends it.
std::string value_of(const std::string& header, const std::string& key) {
  const std::string quoted = "'" + key + "':";
  std::size_t place = header.find(quoted);
  if (place == std::string::npos) return {};
  place = header.find_first_not_of(' ', place + quoted.size());
  if (place == std::string::npos) return {};
  const std::size_t end = header.find_first_of(header[place] == '(' ? ")" : ",}", place);
  return end == std::string::npos ? std::string() : header.substr(place, end - place);
}

// The numbers of "(1000, 100", or of "(1000,". Nothing for anything else.
std::vector<std::int64_t> numbers_of(const std::string& shape) {
  if (shape.empty() || shape[0] != '(') return {};
  std::vector<std::int64_t> numbers;
  const char* place = shape.data() + 1;
  const char* const end = shape.data() + shape.size();
  while (place < end) {
    std::int64_t number = 0;
    const auto [rest, error] = std::from_chars(place, end, number);
    if (error != std::errc() || number < 0 || number > kMostRows) return {};
    numbers.push_back(number);
    place = rest;
    if (place < end && *place != ',') return {};
    while (place < end && (*place == ',' || *place == ' ')) ++place;
  }
  return numbers;
}

}  // namespace

NpyFile::NpyFile(std::string path, Content content) : path_(std::move(path)) {
  file_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_ < 0) fail(std::strerror(errno));
  try {
    read_shape(read_header(), content);
    check_size();
  } catch (...) {
    ::close(file_);
    throw;
  }
}

NpyFile::~NpyFile() { ::close(file_); }

void NpyFile::fail(const std::string& reason) const {
  throw std::runtime_error(path_ + ": " + reason);
}

std::string NpyFile::read_header() {
  unsigned char start[12];
  read_bytes(0, start, 10);
  if (std::memcmp(start, "\x93NUMPY", 6) != 0) fail("not a .npy file");
  const int version = start[6];
  if (version < 1 || version > 3) fail("an unknown version of .npy");
  // The length has two bytes in the first version and four in the later ones.
  const std::int64_t begin = version == 1 ? 10 : 12;
  read_bytes(0, start, static_cast<std::size_t>(begin));
  std::int64_t length = 0;
  for (std::int64_t i = begin; i > 8; --i) length = length * 256 + start[i - 1];
  if (length > 65536) fail("its header is too long");
  std::string header(static_cast<std::size_t>(length), ' ');
  read_bytes(begin, header.data(), header.size());
  data_place_ = begin + length;
  return header;
}

void NpyFile::read_shape(const std::string& header, Content content) {
  const bool vectors = content == Content::kVectors;
  const std::string wanted = vectors ? "'<f4'" : "'<i8'";
  const std::string type = value_of(header, "descr");
  if (type != wanted) {
    fail("its numbers are " + type + ", and must be " + wanted + ": save array.astype(" + wanted +
         ")");
  }
  const std::vector<std::int64_t> shape = numbers_of(value_of(header, "shape"));
  if (shape.size() != (vectors ? 2u : 1u)) {
    fail(vectors ? "not a matrix of vectors: it needs two dimensions"
                 : "not a list of ids: it needs one dimension");
  }
  if (vectors && value_of(header, "fortran_order") != "False") {
    fail("its columns lie one after the other; save it in C order");
  }
  rows_ = shape[0];
  if (vectors && (shape[1] < 1 || shape[1] > std::numeric_limits<std::int32_t>::max())) {
    fail("its vectors have " + std::to_string(shape[1]) + " numbers");
  }
  dim_ = vectors ? static_cast<std::int32_t>(shape[1]) : 1;
  row_bytes_ = vectors ? std::int64_t{4} * dim_ : 8;
  if (rows_ > (std::int64_t{1} << 60) / row_bytes_) fail("its shape is too large");
}

void NpyFile::check_size() const {
  struct stat status {};
  if (::fstat(file_, &status) != 0) fail(std::strerror(errno));
  const std::int64_t needed = data_place_ + rows_ * row_bytes_;
  if (status.st_size < needed) {
    fail("it is short: " + std::to_string(status.st_size) + " of " + std::to_string(needed) +
         " bytes");
  }
}

void NpyFile::read(std::int64_t first, std::span<float> vectors) const {
  read_bytes(data_place_ + first * row_bytes_, vectors.data(), vectors.size_bytes());
}

void NpyFile::read(std::int64_t first, std::span<std::int64_t> ids) const {
  read_bytes(data_place_ + first * row_bytes_, ids.data(), ids.size_bytes());
}

void NpyFile::read_bytes(std::int64_t place, void* bytes, std::size_t count) const {
  constexpr std::size_t kMost = std::size_t{1} << 30;  // one call reads less than 2^31 bytes
  std::size_t done = 0;
  while (done < count) {
    const ssize_t part =
        ::pread(file_, static_cast<char*>(bytes) + done, std::min(kMost, count - done),
                static_cast<off_t>(place + static_cast<std::int64_t>(done)));
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) fail(std::strerror(errno));
    if (part == 0) fail("it ends too early");
    done += static_cast<std::size_t>(part);
  }
}

}  // namespace qx
