#include "row_reader.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <span>

namespace qx_sqlite {
namespace {

bool is_label(const Column& column) { return sqlite3_stricmp(column.name.c_str(), "label") == 0; }

template <typename... Parts>
void require_row(bool condition, std::int64_t rowid, const Parts&... parts) {
  require_intact(condition, "the stored row ", rowid, " is damaged: ", parts...);
}

// Rowids from here on are sparse.
std::int64_t base_limit(std::size_t rows) {
  return std::min(static_cast<std::int64_t>(rows) * 8 + (1 << 20), std::int64_t{1} << 40);
}

// Takes the elements of rows from `first` on out of an array that has `width` of them a row.
template <typename Element>
std::vector<Element> take_from(std::vector<Element>* elements, std::size_t first,
                               std::size_t width) {
  const auto cut = elements->begin() + static_cast<std::ptrdiff_t>(first * width);
  std::vector<Element> taken(cut, elements->end());
  elements->erase(cut, elements->end());
  return taken;
}

// Row i becomes what row from[i] was. In place: a second copy of all vectors costs more than their
// way around each cycle of the permutation.
template <typename Element>
void reorder(std::vector<Element>* elements, std::size_t width,
             const std::vector<std::size_t>& from) {
  const auto row = [&](std::size_t i) {
    return elements->begin() + static_cast<std::ptrdiff_t>(i * width);
  };
  std::vector<bool> placed(from.size());
  std::vector<Element> first(width);
  for (std::size_t start = 0; start < from.size(); ++start) {
    if (placed[start]) continue;
    std::copy_n(row(start), width, first.begin());
    std::size_t i = start;
    for (; from[i] != start; i = from[i]) {
      std::copy_n(row(from[i]), width, row(i));
      placed[i] = true;
    }
    std::copy_n(first.begin(), width, row(i));
    placed[i] = true;
  }
}

std::vector<qx::Partition> partitions_of(const std::vector<std::optional<std::int64_t>>& keys) {
  std::vector<qx::Partition> partitions;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!keys[i]) continue;
    if (partitions.empty() || partitions.back().key != *keys[i]) {
      partitions.push_back({*keys[i], static_cast<std::int32_t>(i), 0});
    }
    ++partitions.back().size;
  }
  return partitions;
}

}  // namespace

NumberSlots::NumberSlots(const Declaration& declaration) {
  bool labelled = false;
  for (const Column& column : declaration.columns) {
    if (column.kind == ColumnKind::kVector || column.kind == ColumnKind::kExtra) {
      of_column.push_back(kNone);
    } else if (!labelled && is_label(column)) {
      labelled = true;
      of_column.push_back(kLabel);
    } else {
      of_column.push_back(columns++);
    }
  }
}

void RowReader::read(const Statement& row, Rows* rows) const {
  const std::int64_t rowid = row.integer(0);
  require_row(row.type(0) == SQLITE_INTEGER && rowid >= 0, rowid, "a rowid below 0");
  const std::size_t values_before = rows->values.size();
  rows->values.resize(values_before + static_cast<std::size_t>(slots_.columns), kMissing);
  std::int64_t label = kMissing;
  std::optional<std::int64_t> key;
  for (std::size_t i = 0; i < declaration_.columns.size(); ++i) {
    const int at = static_cast<int>(i) + 1;
    const int slot = slots_.of_column[i];
    if (declaration_.columns[i].kind == ColumnKind::kVector) {
      read_vector(row, at, rowid, rows);
      continue;
    }
    if (slot == NumberSlots::kNone || row.type(at) == SQLITE_NULL) continue;
    require_row(row.type(at) == SQLITE_INTEGER && row.integer(at) != kLeastNumber, rowid,
                "no number in ", declaration_.columns[i].name);
    const std::int64_t number = row.integer(at);
    if (declaration_.columns[i].kind == ColumnKind::kPartition) key = number;
    if (slot == NumberSlots::kLabel) {
      label = stored(number);
    } else {
      rows->values[values_before + static_cast<std::size_t>(slot)] = stored(number);
    }
  }
  rows->ids.push_back(rowid);
  rows->labels.push_back(label);
  rows->keys.push_back(key);
}

void RowReader::read_vector(const Statement& row, int at, std::int64_t rowid, Rows* rows) const {
  const std::span<const std::byte> bytes = row.blob(at);
  require_row(row.type(at) == SQLITE_BLOB && std::ssize(bytes) == 4 * declaration_.dim, rowid,
              "no vector of ", declaration_.dim, " numbers");
  try {
    append_floats(bytes, &rows->vectors);
  } catch (const SqlError& error) {
    require_row(false, rowid, error.what());
  }
}

AllRows RowReader::read_all(Storage& storage) const {
  AllRows all;
  try {
    all.base.vectors.reserve(storage.most_floats());
  } catch (const std::exception&) {
    // More than there is, or a host that forbids to ask: the array then grows as it must.
  }
  storage.all_rows().each([&](const Statement& row) { read(row, &all.base); });
  all.sparse = take_sparse(&all.base);
  if (declaration_.partition_column() >= 0) sort_by_key(&all.base);
  all.partitions = partitions_of(all.base.keys);
  return all;
}

// Calls work(array, the same one of the other rows, how many elements a row has in it).
template <typename Work>
void RowReader::each_array(Rows* rows, Rows* other, Work work) const {
  work(&rows->ids, &other->ids, 1);
  work(&rows->labels, &other->labels, 1);
  work(&rows->keys, &other->keys, 1);
  work(&rows->vectors, &other->vectors, static_cast<std::size_t>(declaration_.dim));
  work(&rows->values, &other->values, static_cast<std::size_t>(slots_.columns));
}

// The rows come by rowid, so that the sparse ones are the last.
Rows RowReader::take_sparse(Rows* rows) const {
  const auto limit =
      std::lower_bound(rows->ids.begin(), rows->ids.end(), base_limit(rows->ids.size()));
  const auto first = static_cast<std::size_t>(limit - rows->ids.begin());
  Rows sparse;
  each_array(rows, &sparse, [&](auto* from, auto* into, std::size_t width) {
    *into = take_from(from, first, width);
  });
  return sparse;
}

void RowReader::sort_by_key(Rows* rows) const {
  std::vector<std::size_t> from(rows->ids.size());
  std::iota(from.begin(), from.end(), std::size_t{0});
  std::stable_sort(from.begin(), from.end(), [&](std::size_t one, std::size_t other) {
    return rows->keys[one] < rows->keys[other];
  });
  each_array(rows, rows,
             [&](auto* array, auto*, std::size_t width) { reorder(array, width, from); });
}

}  // namespace qx_sqlite
