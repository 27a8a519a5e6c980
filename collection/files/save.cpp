#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <random>

#include "files/descriptor.h"
#include "files/file.h"
#include "files/format.h"

namespace qx::collection {
namespace {

// A new file beside the one whose place it will take. Unless it does, it is removed.
class Replacement {
 public:
  explicit Replacement(std::string_view path)
      : name_(path.substr(path.rfind('/') + 1)),
        folder_(open_folder(std::string(path.substr(0, path.size() - name_.size())))),
        file_(create()) {}

  ~Replacement() {
    if (!is_in_place_) unlinkat(folder_.get(), beside_.c_str(), 0);
  }

  void write(const void* data, std::size_t bytes, std::uint64_t offset) {
    const auto* next = static_cast<const char*>(data);
    while (bytes > 0) {
      const auto count = static_cast<std::size_t>(checked("it cannot be written", [&] {
        return pwrite(file_.get(), next, bytes, static_cast<off_t>(offset));
      }));
      next += count;
      bytes -= count;
      offset += count;
    }
  }

  void take_place() {
    const int folder = folder_.get();
    checked("it cannot be synced", [&] { return fsync(file_.get()); });
    checked("it cannot be replaced",
            [&] { return renameat(folder, beside_.c_str(), folder, name_.c_str()); });
    is_in_place_ = true;
    checked("it is saved, but its folder cannot be synced", [&] {
      const int result = fsync(folder);
      return result < 0 && errno == EINVAL ? 0 : result;  // a file system without that
    });
  }

 private:
  static int open_folder(const std::string& path) {
    const char* const name = path.empty() ? "." : path.c_str();
    return checked("its folder cannot be opened",
                   [&] { return open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  }

  // A folder is not replaced, nor a device, a pipe or a socket.
  int create() {
    struct stat status;
    const bool exists = fstatat(folder_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (name_.empty() || (exists && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))) {
      throw Error(QX_IO_ERROR, "it is no file");
    }
    // The name is not to be foreseen by others who may write to the folder.
    std::random_device random;
    char end[] = ".saving-0123456789abcdef";
    std::snprintf(end, sizeof(end), ".saving-%08x%08x", random(), random());
    constexpr std::size_t kMostBytes = 255;
    beside_ = name_.substr(0, kMostBytes + 1 - sizeof(end)) + end;
    constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    return checked("a file beside it cannot be created",
                   [&] { return openat(folder_.get(), beside_.c_str(), kNew, 0666); });
  }

  const std::string name_;
  const Descriptor folder_;
  std::string beside_;
  bool is_in_place_ = false;
  const Descriptor file_;
};

// Arrays, block by block.
class Writer {
 public:
  Writer(Replacement& file, std::uint64_t offset) : file_(file), offset_(offset) {}

  // Begins an array of elements of `width` bytes.
  void begin(std::size_t width, std::size_t block_bytes = kBlockBytes) {
    width_ = width;
    block_bytes_ = block_bytes;
    block_.reserve(block_bytes + kDigestBytes);
  }
  void put(const void* data, std::size_t bytes) {
    for (const auto* next = static_cast<const char*>(data); bytes > 0;) {
      const std::size_t count = std::min(bytes, block_bytes_ - block_.size());
      block_.append(next, count);
      if (block_.size() == block_bytes_) end();
      next += count;
      bytes -= count;
    }
  }
  // Writes what there is of a block.
  void end() {
    if (block_.empty()) return;
    turn_order(block_.data(), block_.size(), width_);
    std::uint64_t digest = digest_of(block_.data(), block_.size(), offset_);
    turn_order(&digest, sizeof(digest), sizeof(digest));
    block_.append(reinterpret_cast<const char*>(&digest), sizeof(digest));
    file_.write(block_.data(), block_.size(), offset_);
    offset_ += block_.size();
    block_.clear();
  }

 private:
  Replacement& file_;
  std::uint64_t offset_;
  std::size_t width_ = 1;
  std::size_t block_bytes_ = kBlockBytes;
  std::string block_;
};

// The rows of a state, which are written in several passes.
class Saving {
 public:
  Saving(const Shape& shape, const State& state, const Progress& progress)
      : shape_(shape), state_(state), progress_(progress), header_{shape.dim,
                                                                   shape.has_texts,
                                                                   shape.metric,
                                                                   state.visible_rows(),
                                                                   0,
                                                                   lists_of(state),
                                                                   {}} {
    for (const ColumnSchema& column : shape.schema) {
      header_.columns.push_back({column, Known::kNone, 0, 0});
    }
    order_.reserve(static_cast<std::size_t>(header_.rows));
    Cursor cursor(state, nullptr);
    for (Location at; cursor.next(&at);) order_.push_back(at);
  }

  std::string header() const { return encode(header_); }

  // Then the header is complete.
  void write(Writer& writer) {
    write_ids(writer);
    write_vectors(writer);
    if (header_.lists > 0) write_lists(writer);
    for (std::size_t c = 0; c < header_.columns.size(); ++c) write_column(writer, c);
    report(0);
  }

 private:
  // The host hears of so many rows at a time.
  void report(std::int64_t row) const {
    if (row % rows_of_block(shape_.dim) != 0) return;
    const std::int64_t passes =
        std::ssize(header_.columns) + (shape_.has_texts ? 3 : 2) + (header_.lists > 0 ? 1 : 0);
    progress_.report(passed_ * header_.rows + row, passes * header_.rows);
  }
  template <typename Visit>
  void pass(Visit visit) {
    for (std::int64_t row = 0; row < header_.rows; ++row) {
      report(row);
      visit(order_[static_cast<std::size_t>(row)]);
    }
    ++passed_;
  }

  void write_ids(Writer& writer) {
    writer.begin(sizeof(std::uint64_t));
    pass([&](Location at) {
      const Key key = state_.key(at);
      header_.id_bytes += key.text.size();
      writer.put(shape_.has_texts ? static_cast<const void*>(&header_.id_bytes) : &key.number,
                 sizeof(std::uint64_t));
    });
    writer.end();
    if (!shape_.has_texts) return;
    writer.begin(1);
    pass([&](Location at) { writer.put(state_.key(at).text.data(), state_.key(at).text.size()); });
    writer.end();
  }

  void write_vectors(Writer& writer) {
    const std::size_t row_bytes = static_cast<std::size_t>(shape_.dim) * sizeof(float);
    writer.begin(sizeof(float), static_cast<std::size_t>(rows_of_block(shape_.dim)) * row_bytes);
    pass([&](Location at) { writer.put(state_.part(at).vector(at.row()), row_bytes); });
    writer.end();
  }

  static std::int64_t lists_of(const State& state) {
    return state.lists == nullptr || state.visible_rows() == 0 ? 0 : state.lists->count();
  }

  void write_lists(Writer& writer) {
    writer.begin(sizeof(float));
    for (std::int64_t list = 0; list < header_.lists; ++list) {
      writer.put(state_.lists->centroid(list),
                 static_cast<std::size_t>(shape_.dim) * sizeof(float));
    }
    writer.end();
    const RowLists lists(state_);
    writer.begin(sizeof(ListNumber));
    pass([&](Location at) {
      const ListNumber list = lists.of(at);
      writer.put(&list, sizeof(list));
    });
    writer.end();
  }

  void write_column(Writer& writer, std::size_t c) {
    ColumnHeader& header = header_.columns[c];
    const Column column = Column::of(header.schema.type, header_.rows, [&](std::int64_t row) {
      report(row);
      const Location at = order_[static_cast<std::size_t>(row)];
      return state_.part(at).value(at.row(), c);
    });
    ++passed_;
    const bool is_all_known = column.known().empty();
    header.known = is_all_known ? Known::kAll : Known::kSome;
    if (column.is_all_null()) header.known = Known::kNone;
    header.texts = column.arrays().text_ends.size();
    header.text_bytes = column.arrays().text_bytes.size();
    visit_arrays(header, header_.rows, column.arrays(),
                 [&](const auto& array, std::uint64_t, std::uint64_t elements) {
                   writer.begin(sizeof(array[0]));
                   writer.put(array.data(), elements * sizeof(array[0]));
                   writer.end();
                 });
  }

  const Shape& shape_;
  const State& state_;
  const Progress& progress_;
  Header header_;
  std::vector<Location> order_;  // of the rows, by id
  std::int64_t passed_ = 0;
};

}  // namespace

void save(const Shape& shape, const State& state, const char* path, const Progress& progress) {
  Saving saving(shape, state, progress);
  const std::size_t header_bytes = saving.header().size();
  require(header_bytes <= kMostHeaderBytes,
          [] { return std::string("the names of the columns are too long for a file"); });
  naming(path, [&] {
    Replacement file(path);
    Writer writer(file, header_bytes);
    saving.write(writer);
    const std::string header = saving.header();
    file.write(header.data(), header.size(), 0);
    file.take_place();
  });
}

}  // namespace qx::collection
