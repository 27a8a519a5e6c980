// What calls give out: plain arrays of the C interface, and what they point into.
#pragma once

#include <string>

#include "search/search.h"

namespace qx::collection {

// Texts that a result owns, in one block.
class OwnedTexts {
 public:
  void add(std::string_view text);
  // Valid until the next text is added.
  const QxText* pointers();

 private:
  std::string bytes_;
  std::vector<std::size_t> ends_;
  std::vector<QxText> texts_;
};

struct OwnedHits : QxHits {
  OwnedHits(const State& state, const Shape& shape, const std::vector<std::vector<Hit>>& hits,
            std::int64_t slots);

 private:
  std::vector<std::int64_t> counts_;
  std::vector<std::int64_t> ids_;
  OwnedTexts texts_;
  std::vector<float> scores_;
};

struct OwnedRows : QxRows {
  // `places` are those of `keys`; a key without a row is not found.
  OwnedRows(const State& state, const Shape& shape, const std::vector<Key>& keys,
            const std::vector<Location>& places);

 private:
  struct OwnedColumn {
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> booleans;
    OwnedTexts texts;
    std::vector<std::uint8_t> nulls;
    void add(ColumnType type, const Value& value);
    QxValues values(ColumnType type);
  };
  std::vector<std::int64_t> ids_;
  OwnedTexts texts_;
  std::vector<float> vectors_;
  std::vector<OwnedColumn> owned_;
  std::vector<QxValues> columns_;
  std::vector<std::uint8_t> found_;
};

}  // namespace qx::collection
