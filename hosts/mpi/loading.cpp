// The collection of qx-mpi, from files.
#include <numeric>

#include "npy_file.hpp"
#include "tool.hpp"

namespace qx::mpi {
namespace {

using Content = NpyFile::Content;

constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

// All numbers of a file that rank 0 alone opens, on rank 0; none elsewhere.
template <typename Number>
std::vector<Number> read_all(const std::string& path, Content content,
                             const ShardedCollection& collection) {
  std::vector<Number> numbers;
  collection.ranks().together([&] {
    if (!collection.ranks().is_root()) return;
    const NpyFile file(path, content);
    const std::int32_t dim = collection.schema().dim;
    require(content == Content::kIds || file.dim() == dim, path, ": its vectors have ", file.dim(),
            " numbers, and those of the collection ", dim);
    numbers.resize(at(file.rows() * file.dim()));
    file.read(0, std::span(numbers));
  });
  return numbers;
}

// The files of --vectors, --ids and --integers.
class Files {
 public:
  Files(const Options& options, const Communicator& ranks)
      : ranks_(ranks), has_ids_(options.has("--ids")) {
    open(options.text("--vectors"), Content::kVectors);
    if (has_ids_) open(options.text("--ids"), Content::kIds);
    for (const auto& [name, path] : options.integers) {
      open(path, Content::kIds);
      columns_.push_back({name.c_str(), QX_INTEGER});
    }
  }

  const NpyFile& vectors() const { return files_[0]; }
  const std::vector<QxColumn>& columns() const { return columns_; }

  // Each rank reads its own range of the rows, in parts of which all have as many.
  void load_into(ShardedCollection& collection) const {
    const std::int64_t rows = vectors().rows();
    const std::int64_t each = (rows + ranks_.size() - 1) / ranks_.size();
    const std::int64_t end = std::min((ranks_.rank() + 1) * each, rows);
    const std::int64_t row_bytes = 8 * std::ssize(files_) + std::int64_t{4} * vectors().dim();
    const std::int64_t step = std::max<std::int64_t>(1, kBytesPerPart / row_bytes);
    for (std::int64_t done = 0; done < each; done += step) {
      const std::int64_t first = std::min(ranks_.rank() * each + done, end);
      load_part(collection, first, std::min(step, end - first));
    }
    require(collection.count() == rows, "of ", rows, " ids, ", collection.count(), " are distinct");
  }

 private:
  // Every rank opens a file. Where it differs between machines, that is an error.
  void open(const std::string& path, Content content) {
    ranks_.together([&] { files_.emplace_back(path, content); });
    const NpyFile& file = files_.back();
    const auto differs = [&](std::int64_t number) {
      return ranks_.reduced(number, MPI_MIN) != ranks_.reduced(number, MPI_MAX);
    };
    require(!differs(file.rows()) && !differs(file.dim()), path,
            ": its shape differs between ranks");
    require(file.rows() == vectors().rows(), path, " has ", file.rows(), " numbers for ",
            vectors().rows(), " rows");
  }

  void load_part(ShardedCollection& collection, std::int64_t first, std::int64_t count) const {
    std::vector<float> vectors;
    std::vector<std::vector<std::int64_t>> lists;  // ids and columns
    std::vector<QxValues> values;
    ranks_.together([&] {
      vectors.resize(at(count * files_[0].dim()));
      files_[0].read(first, std::span(vectors));
      lists.resize(columns_.size() + 1, std::vector<std::int64_t>(at(count)));
      std::iota(lists[0].begin(), lists[0].end(), first);
      for (std::size_t file = 1; file < files_.size(); ++file) {
        files_[file].read(first, std::span(lists[has_ids_ ? file - 1 : file]));
      }
      for (std::size_t i = 1; i < lists.size(); ++i) {
        values.push_back({lists[i].data(), nullptr, nullptr, nullptr, nullptr});
      }
    });
    collection.upsert_local(lists[0], vectors, values);
  }

  const Communicator& ranks_;
  bool has_ids_;
  std::vector<NpyFile> files_;  // vectors, ids if there are, and columns
  std::vector<QxColumn> columns_;
};

}  // namespace

std::unique_ptr<ShardedCollection> load_collection(const Options& options,
                                                   const Communicator& world) {
  std::unique_ptr<ShardedCollection> collection;
  QxOptions wanted = {};
  wanted.threads = static_cast<std::int32_t>(options.number("--threads"));
  if (!options.has("--load")) {
    const Files files(options, world);
    wanted.dim = files.vectors().dim();
    wanted.columns = files.columns().data();
    wanted.n_columns = static_cast<std::int32_t>(files.columns().size());
    collection = std::make_unique<ShardedCollection>(world.handle(), wanted);
    files.load_into(*collection);
  } else {
    collection.reset(
        new auto(ShardedCollection::load(world.handle(), options.text("--load"), wanted)));
  }
  const auto ids = [&](const char* option) {
    return read_all<std::int64_t>(options.text(option), Content::kIds, *collection);
  };
  if (options.has("--insert")) {
    const std::vector<float> vectors = read_vectors(options.text("--insert"), *collection);
    collection->upsert(ids("--insert-ids"), vectors);
  }
  if (options.has("--delete")) collection->remove(ids("--delete"));
  return collection;
}

std::vector<float> read_vectors(const std::string& path, const ShardedCollection& collection) {
  return read_all<float>(path, Content::kVectors, collection);
}

}  // namespace qx::mpi
