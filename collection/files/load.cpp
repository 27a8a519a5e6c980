#include <fcntl.h>
#include <sys/stat.h>

#include <bit>
#include <functional>
#include <span>

#include "files/descriptor.h"
#include "files/file.h"
#include "files/format.h"
#include "support/fp_environment.h"
#include "threads/pool.h"

namespace qx::collection {
namespace {

// Bytes at any place, for any thread.
class File {
 public:
  // Other files than regular ones could make a reader wait.
  explicit File(const char* path)
      : fd_(checked("it cannot be opened",
                    [&] { return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); })) {
    struct stat status;
    checked("it cannot be read", [&] { return fstat(fd_.get(), &status); });
    if (!S_ISREG(status.st_mode)) refuse_file("it is no file of a collection");
    bytes_ = static_cast<std::uint64_t>(status.st_size);
  }

  std::uint64_t bytes() const { return bytes_; }

  void read(void* to, std::size_t bytes, std::uint64_t offset) const {
    auto* next = static_cast<char*>(to);
    while (bytes > 0) {
      const auto count = static_cast<std::size_t>(checked("it cannot be read", [&] {
        return pread(fd_.get(), next, bytes, static_cast<off_t>(offset));
      }));
      if (count == 0) refuse_file("it ends too soon");
      next += count;
      bytes -= count;
      offset += count;
    }
  }

 private:
  Descriptor fd_;
  std::uint64_t bytes_;
};

std::string read_header(const File& file) {
  std::string bytes(std::min<std::uint64_t>(kPrefixBytes, file.bytes()), '\0');
  file.read(bytes.data(), bytes.size(), 0);
  bytes.resize(header_bytes_of(bytes, file.bytes()));
  file.read(bytes.data(), bytes.size(), 0);
  return bytes;
}

struct Block {
  char* to;
  std::uint64_t bytes;
  std::uint64_t width;  // of an element
  std::uint64_t offset;
};

// The blocks of arrays that follow each other.
class Plan {
 public:
  Plan(const File& file, std::uint64_t offset) : file_(file), offset_(offset) {}

  // Refuses arrays that the rest of the file has not, before there is memory for them.
  void require(std::uint64_t bytes) const {
    if (bytes > file_.bytes() - offset_) refuse_file("it ends too soon");
  }
  template <typename T>
  void add(T* to, std::uint64_t elements, std::uint64_t block_bytes = kBlockBytes) {
    std::uint64_t left = elements * sizeof(T);
    for (auto* next = reinterpret_cast<char*>(to); left > 0;) {
      const std::uint64_t bytes = std::min(left, block_bytes);
      require(bytes + kDigestBytes);
      blocks.push_back({next, bytes, sizeof(T), offset_});
      offset_ += bytes + kDigestBytes;
      next += bytes;
      left -= bytes;
    }
  }
  void end() const {
    if (offset_ != file_.bytes()) refuse_file("it goes on after its end");
  }

  std::vector<Block> blocks;

 private:
  const File& file_;
  std::uint64_t offset_;
};

void read_block(const File& file, const Block& block) {
  std::uint64_t digest;
  file.read(block.to, block.bytes, block.offset);
  file.read(&digest, sizeof(digest), block.offset + block.bytes);
  turn_order(&digest, sizeof(digest), sizeof(digest));
  if (digest != digest_of(block.to, block.bytes, block.offset)) {
    refuse_file("it is damaged between bytes " + std::to_string(block.offset) + " and " +
                std::to_string(block.offset + block.bytes + kDigestBytes));
  }
  turn_order(block.to, block.bytes, block.width);
}

// Refuses texts that do not ascend, or are not all of the bytes.
void check_texts(const std::string& what, std::span<const std::uint64_t> ends,
                 std::string_view bytes) {
  std::string_view before;
  std::uint64_t start = 0;
  bool valid = true;
  for (std::size_t i = 0; valid && i < ends.size(); ++i) {
    valid = start <= ends[i] && ends[i] <= bytes.size();
    if (!valid) break;
    const std::string_view text = bytes.substr(start, ends[i] - start);
    valid = i == 0 || before < text;
    before = text;
    start = ends[i];
  }
  if (!valid || start != bytes.size()) refuse_file(what + " do not ascend");
}

void check_ids(const SegmentBuilder::IdArrays& ids) {
  const auto& numbers = ids.numbers;
  if (std::ranges::adjacent_find(numbers, std::ranges::greater_equal()) != numbers.end()) {
    refuse_file("its ids do not ascend");
  }
  check_texts("its ids", ids.text_ends, ids.texts);
}

// Refuses vectors that an upsert would not leave as they are.
void check_kept(const Header& header, SegmentBuilder& builder, std::int64_t first,
                std::int64_t end) {
  in_default_fp_environment([&] {
    for (std::int64_t row = first; row < end; ++row) {
      if (is_kept(header.metric, builder.vector(row), header.dim)) continue;
      refuse_file("vector " + std::to_string(row) + " is not divided by its norm");
    }
  });
}

// Refuses what a column does not keep.
void check_column(const ColumnHeader& header, std::int64_t rows, const ColumnArrays& arrays) {
  std::int64_t n_known = 0;
  std::vector<bool> used(header.texts);
  bool valid = true;
  for (std::int64_t first = 0; header.known != Known::kNone && first < rows; first += 64) {
    const auto word = static_cast<std::size_t>(first / 64);
    const std::uint64_t all = first_bits(std::min<std::int64_t>(64, rows - first));
    const std::uint64_t known = arrays.known.empty() ? all : arrays.known[word];
    n_known += std::popcount(known);
    valid &= (known & ~all) == 0;
    valid &= arrays.booleans.empty() || (arrays.booleans[word] & ~known) == 0;
    for (std::size_t i = 0; i < 64; ++i) {
      const bool is_known = (known >> i & 1) != 0;
      valid &= arrays.keys.empty() || is_known || arrays.keys[word * 64 + i] == 0;
      if (arrays.codes.empty()) continue;
      const std::uint32_t code = arrays.codes[word * 64 + i];
      valid &= is_known ? code < header.texts : code == 0;
      if (is_known && valid) used[code] = true;
    }
  }
  const bool is_some = 0 < n_known && n_known < rows;
  valid &= is_some == (header.known == Known::kSome);
  valid &= std::ranges::find(used, false) == used.end();
  if (!valid) refuse_file("the values of column " + header.schema.name + " are not valid");
  check_texts("the texts of column " + header.schema.name, arrays.text_ends,
              {arrays.text_bytes.data(), arrays.text_bytes.size()});
}

// Makes the lists of what a file has of them.
void make_lists(const Header& header, const std::vector<float>& centroids,
                const std::vector<ListNumber>& numbers, Loaded& loaded) {
  if (header.lists == 0) return;
  require_finite("centroid", centroids.data(), static_cast<std::size_t>(header.lists), header.dim);
  if (*std::ranges::max_element(numbers) >= header.lists) refuse_file("a row is in no list");
  loaded.lists = std::make_shared<const Lists>(centroids.data(), header.lists, header.dim,
                                               nearness_of(loaded.shape), loaded.shape.budget);
  loaded.sealed.members = std::make_shared<Members>(numbers, header.lists, loaded.shape.budget);
}

// Reads the rows, each block by one thread.
void read_rows(const File& file, const Header& header, Plan& plan, Loaded& loaded, int threads,
               const Progress& progress) {
  const Shape& shape = loaded.shape;
  const auto rows = static_cast<std::uint64_t>(header.rows);
  const auto dim = static_cast<std::uint64_t>(header.dim);
  plan.require(header.id_bytes);
  plan.require(rows * (sizeof(std::uint64_t) + dim * sizeof(float)));
  SegmentBuilder builder(shape, header.rows);
  const SegmentBuilder::IdArrays ids = builder.all_ids(static_cast<std::int64_t>(header.id_bytes));
  plan.add(ids.numbers.data(), ids.numbers.size());
  plan.add(ids.text_ends.data(), ids.text_ends.size());
  plan.add(ids.texts.data(), ids.texts.size());
  const auto first_vectors = std::ssize(plan.blocks);
  const std::int64_t step = rows_of_block(header.dim);
  plan.add(builder.vector(0), rows * dim, static_cast<std::uint64_t>(step) * dim * sizeof(float));
  const auto end_vectors = std::ssize(plan.blocks);
  plan.require(static_cast<std::uint64_t>(header.lists) * dim * sizeof(float));
  std::vector<float> centroids(static_cast<std::uint64_t>(header.lists) * dim);
  std::vector<ListNumber> numbers(header.lists > 0 ? rows : 0);
  plan.add(centroids.data(), centroids.size());
  plan.add(numbers.data(), numbers.size());
  std::vector<ColumnArrays> columns(header.columns.size());
  for (std::size_t c = 0; c < columns.size(); ++c) {
    visit_arrays(header.columns[c], header.rows, columns[c],
                 [&](auto& array, std::uint64_t kept, std::uint64_t elements) {
                   plan.require(elements * sizeof(array[0]));
                   array.resize(kept);
                   plan.add(array.data(), elements);
                 });
  }
  plan.end();
  parallel_for(std::ssize(plan.blocks), threads, progress, [&](std::int64_t i, int) {
    const Block& block = plan.blocks[static_cast<std::size_t>(i)];
    read_block(file, block);
    if (i < first_vectors || i >= end_vectors) return;
    const std::int64_t first = (i - first_vectors) * step;
    const std::int64_t end = std::min(first + step, header.rows);
    require_finite("vector", builder.vector(first), static_cast<std::size_t>(end - first),
                   header.dim, static_cast<std::size_t>(first));
    check_kept(header, builder, first, end);
    builder.complete(first, end);
  });
  check_ids(ids);
  for (std::size_t c = 0; c < columns.size(); ++c) {
    check_column(header.columns[c], header.rows, columns[c]);
    builder.add_column({header.columns[c].schema.type, header.rows, std::move(columns[c])});
  }
  loaded.sealed.segment = builder.finish();
  make_lists(header, centroids, numbers, loaded);
}

}  // namespace

Loaded load(const char* path, std::int64_t memory_limit, int threads, const Progress& progress) {
  return naming(path, [&] {
    const File file(path);
    const std::string encoded = read_header(file);
    const Header header = decode(encoded, file.bytes());
    const auto budget = std::make_shared<Budget>(memory_limit);
    Loaded loaded{{header.dim, header.has_texts, header.metric, {}, budget, threads}, {}, nullptr};
    for (const ColumnHeader& column : header.columns) loaded.shape.schema.push_back(column.schema);
    Plan plan(file, encoded.size());
    if (header.rows == 0) {
      plan.end();
      return loaded;
    }
    // All of the file is kept, in one form or another: refuses at once what is above the limit.
    static_cast<void>(
        Budget::Share(budget, static_cast<std::int64_t>(file.bytes() - encoded.size())));
    read_rows(file, header, plan, loaded, threads, progress);
    return loaded;
  });
}

}  // namespace qx::collection
