#include "npy_file.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "support.hpp"

namespace qx {
namespace {

constexpr std::int64_t kMostBytes = std::int64_t{1} << 60;

static_assert(std::endian::native == std::endian::little, "the files are little-endian");

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
std::vector<std::int64_t> numbers_of(std::string shape) {
  std::replace_if(
      shape.begin(), shape.end(), [](char c) { return c == '(' || c == ','; }, ' ');
  std::istringstream text(shape);
  const std::vector<std::int64_t> numbers(std::istream_iterator<std::int64_t>(text), {});
  return text.eof() ? numbers : std::vector<std::int64_t>();
}

}  // namespace

// Throws what the parts say, with the path before it.
template <typename... Parts>
void NpyFile::check(bool condition, const Parts&... reason) const {
  if (!condition) throw std::runtime_error((path_ + ": " + ... + text_of(reason)));
}

NpyFile::NpyFile(std::string path, Content content) : path_(std::move(path)) {
  file_.open(path_, std::ios::binary);
  check(file_.is_open(), std::strerror(errno));
  read_shape(read_header(), content);
  const std::int64_t needed = data_place_ + rows_ * row_bytes_;
  const std::int64_t size = file_.seekg(0, std::ios::end).tellg();
  check(size >= needed, "it is short: ", size, " of ", needed, " bytes");
}

std::string NpyFile::read_header() {
  unsigned char start[12];
  read_bytes(0, start, 10);
  check(std::memcmp(start, "\x93NUMPY", 6) == 0, "not a .npy file");
  const int version = start[6];
  check(version >= 1 && version <= 3, "an unknown version of .npy");
  // The length has two bytes in the first version and four in the later ones.
  const int begin = version == 1 ? 10 : 12;
  read_bytes(0, start, at(begin));
  std::int64_t length = 0;
  for (int i = begin; i > 8; --i) length = length * 256 + start[i - 1];
  check(length <= 65536, "its header is too long");
  std::string header(at(length), ' ');
  read_bytes(begin, header.data(), header.size());
  data_place_ = begin + length;
  return header;
}

void NpyFile::read_shape(const std::string& header, Content content) {
  const bool vectors = content == Content::kVectors;
  const std::string wanted = vectors ? "'<f4'" : "'<i8'";
  const std::string type = value_of(header, "descr");
  check(type == wanted, "its numbers are ", type, ", and must be ", wanted, ": save array.astype(",
        wanted, ")");
  const std::vector<std::int64_t> shape = numbers_of(value_of(header, "shape"));
  check(shape.size() == (vectors ? 2u : 1u),
        vectors ? "not a matrix of vectors: it needs two dimensions"
                : "not a list of ids: it needs one dimension");
  check(!vectors || value_of(header, "fortran_order") == "False",
        "its columns lie one after the other; save it in C order");
  rows_ = shape[0];
  const std::int64_t dim = vectors ? shape[1] : 1;
  check(dim >= 1 && dim <= std::numeric_limits<std::int32_t>::max(), "its vectors have ", dim,
        " numbers");
  dim_ = static_cast<std::int32_t>(dim);
  row_bytes_ = vectors ? 4 * dim : 8;
  check(rows_ >= 0 && rows_ <= kMostBytes / row_bytes_, "its shape is too large");
}

void NpyFile::read_bytes(std::int64_t place, void* bytes, std::size_t count) const {
  errno = 0;
  file_.clear();
  file_.seekg(place).read(static_cast<char*>(bytes), static_cast<std::streamsize>(count));
  check(file_.good(), errno != 0 ? std::strerror(errno) : "it ends too early");
}

}  // namespace qx
