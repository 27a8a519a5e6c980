// NumPy's .npy files, read by ranges, so that no rank holds a file of which it needs a part.
#pragma once

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "communicator.hpp"

namespace qx::mpi {

static_assert(std::endian::native == std::endian::little, "the files are little-endian");

// A matrix of 32-bit floats, row after row, or a list of 64-bit whole numbers. A file that cannot
// be opened, is short or holds something else throws std::runtime_error with the path before the
// reason.
class NpyFile {
 public:
  enum class Content { kVectors, kIds };

  NpyFile(const std::string& path, Content content) : path_(path), file_(path, std::ios::binary) {
    check(file_.is_open(), std::strerror(errno));
    read_shape(read_header(), content == Content::kVectors);
    const std::int64_t needed = begin_ + rows_ * row_bytes_;
    const std::int64_t size = file_.seekg(0, std::ios::end).tellg();
    check(size >= needed, "it is short: ", size, " of ", needed, " bytes");
  }

  std::int64_t rows() const { return rows_; }
  std::int32_t dim() const { return dim_; }  // of vectors; 1 for ids

  // Reads rows from `first` on, as many as fill the span.
  template <typename Number>
  void read(std::int64_t first, std::span<Number> numbers) const {
    read_bytes(begin_ + first * row_bytes_, numbers.data(), numbers.size_bytes());
  }

 private:
  template <typename... Parts>
  void check(bool condition, const Parts&... reason) const {
    require<std::runtime_error>(condition, path_, ": ", reason...);
  }

  void read_bytes(std::int64_t place, void* bytes, std::size_t count) const {
    errno = 0;
    file_.clear();
    file_.seekg(place).read(static_cast<char*>(bytes), static_cast<std::streamsize>(count));
    check(file_.good(), errno != 0 ? std::strerror(errno) : "it ends too early");
  }

  // Of the first version, which NumPy writes.
  std::string read_header() {
    unsigned char start[10];
    read_bytes(0, start, sizeof start);
    check(std::memcmp(start, "\x93NUMPY\x01", 7) == 0, "not a .npy file, or not of version 1");
    std::string header(start[8] + std::size_t{256} * start[9], ' ');
    read_bytes(sizeof start, header.data(), header.size());
    begin_ = static_cast<std::int64_t>(sizeof start + header.size());
    return header;
  }

  void read_shape(const std::string& header, bool is_matrix) {
    char type[16] = "", is_by_columns[16] = "", end = 0;
    long long rows = -1, dim = 1;
    const int found = std::sscanf(
        header.c_str(), "{'descr': %15[^,], 'fortran_order': %15[^,], 'shape': (%lld, %lld%c", type,
        is_by_columns, &rows, &dim, &end);
    const char* const wanted = is_matrix ? "'<f4'" : "'<i8'";
    check(std::string(type) == wanted, "its numbers are ", type, ", and must be ", wanted,
          ": save array.astype(", wanted, ")");
    check(found == (is_matrix ? 5 : 3) && (!is_matrix || end == ')'),
          is_matrix ? "not a matrix of vectors: it needs two dimensions"
                    : "not a list of ids: it needs one dimension");
    check(!is_matrix || std::string(is_by_columns) == "False",
          "its columns lie one after the other; save it in C order");
    check(dim >= 1 && dim <= 65536, "its vectors have ", dim, " numbers");
    dim_ = static_cast<std::int32_t>(dim);
    row_bytes_ = is_matrix ? 4 * dim : 8;
    rows_ = rows;
    check(rows >= 0 && rows <= (std::int64_t{1} << 60) / row_bytes_, "its shape is too large");
  }

  std::string path_;
  mutable std::ifstream file_;
  std::int64_t rows_ = 0;
  std::int32_t dim_ = 1;
  std::int64_t row_bytes_ = 0;
  std::int64_t begin_ = 0;  // of the numbers
};

}  // namespace qx::mpi
