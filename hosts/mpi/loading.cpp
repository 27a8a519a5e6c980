#include "loading.hpp"

#include <algorithm>
#include <numeric>
#include <optional>

#include "../ivf/centroids.hpp"
#include "npy_file.hpp"
#include "progress.hpp"
#include "support.hpp"

namespace qx {
namespace {

using Content = NpyFile::Content;

constexpr std::int64_t kBytesPerPart = std::int64_t{1} << 26;

// A file that every rank opens. Where it differs between machines, that is an error.
std::unique_ptr<NpyFile> open_on_all(const Communicator& ranks, const std::string& path,
                                     Content content) {
  std::unique_ptr<NpyFile> file;
  ranks.together([&] { file = std::make_unique<NpyFile>(path, content); });
  const bool same = ranks.least(file->rows()) == ranks.most(file->rows()) &&
                    ranks.least(file->dim()) == ranks.most(file->dim());
  require(same, path + ": its shape differs between ranks");
  return file;
}

// A file of one number for each row; nothing where none is named.
std::unique_ptr<NpyFile> open_beside(const Communicator& ranks, const std::string& path,
                                     const NpyFile& vectors, const std::string& what) {
  if (path.empty()) return nullptr;
  std::unique_ptr<NpyFile> file = open_on_all(ranks, path, Content::kIds);
  require(file->rows() == vectors.rows(), path + " has " + std::to_string(file->rows()) + " " +
                                              what + ", and " + vectors.path() + " " +
                                              std::to_string(vectors.rows()) + " rows");
  return file;
}

std::vector<std::int64_t> read_ids(const std::string& path, const ShardedIndex& index) {
  std::vector<std::int64_t> ids;
  index.ranks().together([&] {
    if (!index.ranks().is_root()) return;
    const NpyFile file(path, Content::kIds);
    ids.resize(at(file.rows()));
    file.read(0, std::span(ids));
  });
  return ids;
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
    std::vector<std::int64_t> ids;
    ranks_.together([&] {
      if (ids_ == nullptr) return;
      ids.resize(at(count_));
      ids_->read(first_, std::span(ids));
    });
    const auto read = [&](std::span<float> rows) {
      // The ranks of a machine read in turns; those of rank 0's machine report progress.
      Progress progress(ranks_.is_on_root_machine(),
                        "rank " + std::to_string(ranks_.rank()) + " reads rows");
      read_own(progress, [&](std::int64_t place, std::int64_t count) {
        vectors_.read(first_ + place, part_of(rows, place, count));
      });
    };
    if (ids_ == nullptr) {
      index_.build_from(count_, read);
    } else {
      index_.build_from(count_, read, ShardedIndex::Ids(ids));
    }
  }

  // Rank 0 reads the labels, in parts.
  void label() {
    const std::unique_ptr<NpyFile> labels =
        open_beside(ranks_, options_.labels, vectors_, "labels");
    if (labels == nullptr) return;
    Progress progress(ranks_.is_root(), "reading labels");
    constexpr std::int64_t kStep = kBytesPerPart / 16;
    for (std::int64_t first = 0; first < vectors_.rows(); first += kStep) {
      const std::int64_t count = std::min(kStep, vectors_.rows() - first);
      std::vector<std::int64_t> ids;
      std::vector<std::int64_t> part;
      ranks_.together([&] {
        if (!ranks_.is_root()) return;
        ids.resize(at(count));
        part.resize(at(count));
        labels->read(first, std::span(part));
        if (ids_ == nullptr) {
          std::iota(ids.begin(), ids.end(), first);
        } else {
          ids_->read(first, std::span(ids));
        }
      });
      index_.set_rowmeta(ids, part, {}, 0);
      progress.at(first + count, vectors_.rows());
    }
  }

  // Rank 0 learns the lists from a sample; each rank says in which its rows are.
  void attach_lists() {
    if (options_.lists == 0) return;
    require(vectors_.rows() > 0, "lists are learned from rows, and there are none");
    std::vector<float> centroids;
    ranks_.together([&] {
      if (ranks_.is_root()) centroids = learn();
    });
    const std::int64_t numbers =
        ranks_.from_root([&] { return std::int64_t{std::ssize(centroids)}; });
    ranks_.together([&] { centroids.resize(at(numbers)); });
    ranks_.broadcast(std::span(centroids));
    std::vector<std::int32_t> lists;
    ranks_.together([&] { lists = choose(centroids); });
    index_.set_ivf_by_row(kLearnedLists, options_.probes, centroids, lists);
  }

 private:
  std::span<float> part_of(std::span<float> rows, std::int64_t place, std::int64_t count) const {
    return rows.subspan(at(place * vectors_.dim()), at(count * vectors_.dim()));
  }

  // Calls read(place, count) for one part of this rank's rows after the other.
  template <typename Read>
  void read_own(Progress& progress, Read read) const {
    const std::int64_t step =
        std::max<std::int64_t>(1, kBytesPerPart / (4 * std::int64_t{vectors_.dim()}));
    for (std::int64_t place = 0; place < count_; place += step) {
      read(place, std::min(step, count_ - place));
      progress.at(std::min(place + step, count_), count_);
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
    read_own(progress, [&](std::int64_t place, std::int64_t count) {
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
  std::unique_ptr<NpyFile> ids_;
  std::int64_t first_ = 0;  // of this rank's rows
  std::int64_t count_ = 0;
};

}  // namespace

std::unique_ptr<ShardedIndex> load_index(const Options& options, const Communicator& world) {
  const std::unique_ptr<NpyFile> vectors = open_on_all(world, options.vectors, Content::kVectors);
  auto index = std::make_unique<ShardedIndex>(world.handle(), vectors->dim());
  Loader loader(options, *vectors, *index);
  loader.build();
  loader.label();
  loader.attach_lists();
  if (!options.insert.empty()) {
    index->insert(read_vectors(options.insert, *index), read_ids(options.insert_ids, *index));
  }
  if (!options.erase.empty()) index->erase(read_ids(options.erase, *index));
  return index;
}

std::vector<float> read_vectors(const std::string& path, const ShardedIndex& index) {
  std::vector<float> vectors;
  index.ranks().together([&] {
    if (!index.ranks().is_root()) return;
    const NpyFile file(path, Content::kVectors);
    require(file.dim() == index.dim(), path + ": its vectors have " + std::to_string(file.dim()) +
                                           " numbers, and those of the index " +
                                           std::to_string(index.dim()));
    vectors.resize(at(file.rows() * file.dim()));
    file.read(0, std::span(vectors));
  });
  return vectors;
}

}  // namespace qx
