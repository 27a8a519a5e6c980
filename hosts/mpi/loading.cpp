// The index of qx-mpi, from files.
#include <algorithm>
#include <cstdio>
#include <numeric>
#include <optional>

#include "../ivf/centroids.hpp"
#include "npy_file.hpp"
#include "support.hpp"
#include "tool.hpp"

namespace qx {
namespace {

using Content = NpyFile::Content;
using Ids = std::vector<std::int64_t>;

constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

// Says on standard error how far long work is: nothing for what is done within two seconds, and
// nothing at all by a rank that does not print.
class Progress {
 public:
  Progress(bool prints, std::string work) : prints_(prints), work_(std::move(work)) {}
  void at(std::int64_t done, std::int64_t total) {
    if (!prints_ || MPI_Wtime() < next_) return;
    next_ = MPI_Wtime() + kSeconds;
    const double all = static_cast<double>(std::max<std::int64_t>(total, 1));
    std::fprintf(stderr, "%s: %.0f %%\n", work_.c_str(), 100 * static_cast<double>(done) / all);
  }

 private:
  static constexpr double kSeconds = 2;
  bool prints_;
  std::string work_;
  double next_ = MPI_Wtime() + kSeconds;
};

// A file that every rank opens. Where it differs between machines, that is an error.
NpyFile open_on_all(const Communicator& ranks, const std::string& path, Content content) {
  std::optional<NpyFile> file;
  ranks.together([&] { file.emplace(path, content); });
  const bool same = ranks.least(file->rows()) == ranks.most(file->rows()) &&
                    ranks.least(file->dim()) == ranks.most(file->dim());
  require(same, path, ": its shape differs between ranks");
  return std::move(*file);
}

// A file of one number for each row; nothing where none is named.
std::optional<NpyFile> open_beside(const Communicator& ranks, const std::string& path,
                                   const NpyFile& vectors, const char* what) {
  if (path.empty()) return std::nullopt;
  NpyFile file = open_on_all(ranks, path, Content::kIds);
  require(file.rows() == vectors.rows(), path, " has ", file.rows(), " ", what, ", and ",
          vectors.path(), " ", vectors.rows(), " rows");
  return file;
}

// All numbers of a file that rank 0 alone opens, on rank 0; none elsewhere.
template <typename Number>
std::vector<Number> read_all(const std::string& path, Content content, const ShardedIndex& index) {
  std::vector<Number> numbers;
  index.ranks().together([&] {
    if (!index.ranks().is_root()) return;
    const NpyFile file(path, content);
    require(content == Content::kIds || file.dim() == index.dim(), path, ": its vectors have ",
            file.dim(), " numbers, and those of the index ", index.dim());
    numbers.resize(at(file.rows() * file.dim()));
    file.read(0, std::span(numbers));
  });
  return numbers;
}

class Loader {
 public:
  Loader(const Options& options, const NpyFile& vectors, ShardedIndex& index)
      : options_(options),
        vectors_(vectors),
        index_(index),
        ranks_(index.ranks()),
        ids_(open_beside(ranks_, options.ids, vectors, "ids")) {
    std::tie(first_, count_) = rows_of_rank(ranks_.rank(), ranks_.size(), vectors_.rows());
  }

  // Each rank reads its own range of the rows.
  void build() {
    Ids ids;
    ranks_.together([&] {
      if (ids_) ids = ids_of(first_, count_);
    });
    const auto read = [&](std::span<float> rows) {
      // The ranks of a machine read in turns; those of rank 0's machine report progress.
      Progress progress(ranks_.is_on_root_machine(),
                        "rank " + std::to_string(ranks_.rank()) + " reads rows");
      in_parts(count_, progress, [&](std::int64_t place, std::int64_t count) {
        vectors_.read(first_ + place, part_of(rows, place, count));
      });
    };
    index_.build_from(count_, read, ids_ ? std::optional<ShardedIndex::Ids>(ids) : std::nullopt);
  }

  // Rank 0 reads the labels, in parts.
  void label() {
    const std::optional<NpyFile> labels = open_beside(ranks_, options_.labels, vectors_, "labels");
    if (!labels) return;
    Progress progress(ranks_.is_root(), "reading labels");
    in_parts(vectors_.rows(), progress, [&](std::int64_t first, std::int64_t count) {
      Ids ids, part;
      ranks_.together([&] {
        if (!ranks_.is_root()) return;
        ids = ids_of(first, count);
        part.resize(at(count));
        labels->read(first, std::span(part));
      });
      index_.set_rowmeta(ids, part, {}, 0);
    });
  }

  // Rank 0 learns the lists from a sample; each rank says in which its rows are.
  void attach_lists() {
    if (options_.lists == 0) return;
    require(vectors_.rows() > 0, "lists are learned from rows, and there are none");
    std::vector<float> centroids;
    ranks_.together([&] {
      if (ranks_.is_root()) centroids = learn();
    });
    centroids = ranks_.shared(std::span<const float>(centroids));
    std::vector<std::int32_t> lists;
    ranks_.together([&] { lists = choose(centroids); });
    index_.set_ivf_by_row(kLearnedLists, options_.probes, centroids, lists);
  }

 private:
  // The ids of some rows: those of their file, or their numbers.
  Ids ids_of(std::int64_t first, std::int64_t count) const {
    Ids ids(at(count));
    std::iota(ids.begin(), ids.end(), first);
    if (ids_) ids_->read(first, std::span(ids));
    return ids;
  }

  std::span<float> part_of(std::span<float> rows, std::int64_t place, std::int64_t count) const {
    return rows.subspan(at(place * vectors_.dim()), at(count * vectors_.dim()));
  }

  // Calls read(place, count) for one part of the rows after the other.
  template <typename Read>
  void in_parts(std::int64_t rows, Progress& progress, Read read) const {
    const std::int64_t bytes_each = std::max<std::int64_t>(16, std::int64_t{4} * vectors_.dim());
    const std::int64_t step = std::max<std::int64_t>(1, kBytesPerPart / bytes_each);
    for (std::int64_t place = 0; place < rows; place += step) {
      read(place, std::min(step, rows - place));
      progress.at(std::min(place + step, rows), rows);
    }
  }

  std::vector<float> learn() const {
    const std::int64_t wanted = std::min(rows_to_learn(options_.lists), vectors_.rows());
    std::vector<float> sample(at(wanted * vectors_.dim()));
    for (std::int64_t i = 0; i < wanted; ++i) {
      vectors_.read(i * vectors_.rows() / wanted, part_of(sample, i, 1));
    }
    Progress progress(true, "learning lists");
    return learn_centroids(
        sample, vectors_.dim(), options_.lists,
        [&](std::int64_t done, std::int64_t total) { progress.at(done, total); });
  }

  // The list of each of this rank's rows.
  std::vector<std::int32_t> choose(const std::vector<float>& centroids) const {
    const ListChooser chooser(centroids, vectors_.dim());
    std::vector<std::int32_t> lists(at(count_));
    std::vector<float> rows;
    Progress progress(ranks_.is_root(), "filling lists");
    in_parts(count_, progress, [&](std::int64_t place, std::int64_t count) {
      rows.resize(at(count * vectors_.dim()));
      vectors_.read(first_ + place, std::span(rows));
      for (std::int64_t i = 0; i < count; ++i) {
        lists[at(place + i)] = std::max(chooser.list_of(part_of(rows, i, 1)), 0);
      }
    });
    return lists;
  }

  const Options& options_;
  const NpyFile& vectors_;
  ShardedIndex& index_;
  const Communicator& ranks_;
  std::optional<NpyFile> ids_;
  std::int64_t first_ = 0;  // of this rank's rows
  std::int64_t count_ = 0;
};

}  // namespace

std::unique_ptr<ShardedIndex> load_index(const Options& options, const Communicator& world) {
  const NpyFile vectors = open_on_all(world, options.vectors, Content::kVectors);
  auto index = std::make_unique<ShardedIndex>(world.handle(), vectors.dim());
  Loader loader(options, vectors, *index);
  loader.build();
  loader.label();
  loader.attach_lists();
  const auto ids = [&](const std::string& path) {
    return read_all<std::int64_t>(path, Content::kIds, *index);
  };
  if (!options.insert.empty()) {
    index->insert(read_vectors(options.insert, *index), ids(options.insert_ids));
  }
  if (!options.erase.empty()) index->erase(ids(options.erase));
  return index;
}

std::vector<float> read_vectors(const std::string& path, const ShardedIndex& index) {
  return read_all<float>(path, Content::kVectors, index);
}

}  // namespace qx
