// NumPy's .npy files, read by ranges, so that no rank holds a file of which it needs a part.
#pragma once

#include <cstdint>
#include <fstream>
#include <span>
#include <string>

namespace qx {

// A file that cannot be opened, is short or holds something else throws std::runtime_error with the
// path before the reason.
class NpyFile {
 public:
  // A matrix of 32-bit floats, row after row, or a list of 64-bit whole numbers.
  enum class Content { kVectors, kIds };

  NpyFile(std::string path, Content content);

  const std::string& path() const { return path_; }
  std::int64_t rows() const { return rows_; }
  std::int32_t dim() const { return dim_; }  // of vectors; 1 for ids

  // Reads rows from `first` on, as many as fill the span.
  template <typename Number>
  void read(std::int64_t first, std::span<Number> numbers) const {
    read_bytes(data_place_ + first * row_bytes_, numbers.data(), numbers.size_bytes());
  }

 private:
  template <typename... Parts>
  void check(bool condition, const Parts&... reason) const;
  std::string read_header();
  void read_shape(const std::string& header, Content content);
  void read_bytes(std::int64_t place, void* bytes, std::size_t count) const;

  std::string path_;
  mutable std::ifstream file_;
  std::int64_t rows_ = 0;
  std::int32_t dim_ = 1;
  std::int64_t row_bytes_ = 0;
  std::int64_t data_place_ = 0;
};

}  // namespace qx
