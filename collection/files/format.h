// The bytes of a file, for both directions: docs/FORMAT.md describes them.
#pragma once

#include <algorithm>
#include <bit>
#include <string>
#include <string_view>
#include <vector>

#include "columns/column.h"
#include "metric/metric.h"
#include "support/error.h"

namespace qx::collection {

[[noreturn]] inline void refuse_file(const std::string& what) { throw Error(QX_CORRUPT, what); }

// Which values of a column are not NULL. Arrays that are not needed are not in the file.
enum class Known : std::uint8_t { kNone, kSome, kAll };

struct ColumnHeader {
  ColumnSchema schema;
  Known known;
  std::uint64_t texts;  // of the dictionary
  std::uint64_t text_bytes;
};

struct Header {
  std::int32_t dim;
  bool has_texts;  // as ids
  Metric metric;
  std::int64_t rows;
  std::uint64_t id_bytes;  // of ids that are texts
  std::int64_t lists;      // 0 without rows
  std::vector<ColumnHeader> columns;
};

std::string encode(const Header& header);

// Headers of more bytes are not read.
inline constexpr std::size_t kMostHeaderBytes = std::size_t{1} << 26;

// The bytes from which header_bytes_of() reads how many a header has, in a file of so many. Refuses
// another format.
inline constexpr std::size_t kPrefixBytes = 24;
std::size_t header_bytes_of(std::string_view prefix, std::uint64_t file_bytes);

// Refuses what encode() does not give, and numbers of bytes that are more than the file's.
Header decode(std::string_view encoded, std::uint64_t file_bytes);

// Calls visit(array, kept, elements) for each array of a column, in the order of the file: so many
// elements are kept, and those that come first are in the file.
template <typename Arrays, typename Visit>
void visit_arrays(const ColumnHeader& header, std::int64_t rows, Arrays& arrays, Visit visit) {
  const std::uint64_t values = header.known == Known::kNone ? 0 : static_cast<std::uint64_t>(rows);
  const std::uint64_t words = (values + 63) / 64;
  const auto bits = [&](auto& array, bool has) { visit(array, has ? words : 0, has ? words : 0); };
  const auto rows_of = [&](auto& array, bool has) {
    visit(array, has ? words * 64 : 0, has ? values : 0);
  };
  const ColumnType type = header.schema.type;
  bits(arrays.known, header.known == Known::kSome);
  rows_of(arrays.keys, type == ColumnType::kInteger || type == ColumnType::kReal);
  bits(arrays.booleans, type == ColumnType::kBoolean);
  rows_of(arrays.codes, type == ColumnType::kText);
  visit(arrays.text_ends, header.texts, header.texts);
  visit(arrays.text_bytes, header.text_bytes, header.text_bytes);
}

// An array is a run of blocks, each with its digest behind it. The last one may be shorter.
inline constexpr std::uint64_t kDigestBytes = 8;
inline constexpr std::uint64_t kBlockBytes = 1 << 20;

// Blocks of vectors have whole rows, and whole groups of codes but the last.
inline std::int64_t rows_of_block(std::int64_t dim) {
  constexpr std::int64_t kGroup = 32;
  return std::max<std::int64_t>(1, std::int64_t{kBlockBytes} / (4 * dim * kGroup)) * kGroup;
}

// The digest of a block, which depends on where it is.
std::uint64_t digest_of(const void* data, std::size_t bytes, std::uint64_t offset);

// Turns elements of `width` bytes from the order of a machine into that of files, or back.
template <std::endian kMachine = std::endian::native>
void turn_order([[maybe_unused]] void* data, [[maybe_unused]] std::size_t bytes,
                [[maybe_unused]] std::size_t width) {
  if constexpr (kMachine == std::endian::big) {
    auto* const first = static_cast<char*>(data);
    for (std::size_t i = 0; i < bytes; i += width) std::reverse(first + i, first + i + width);
  }
}

}  // namespace qx::collection
