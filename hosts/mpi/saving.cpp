// A saved collection: a file for each rank, named after the save that wrote it, and the manifest,
// which says which save counts.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "sharded_collection.hpp"

namespace qx::mpi {
namespace {

constexpr char kManifest[] = "qx-mpi 1\nranks %lld\nrows %lld\nsave %lld\n";

struct Manifest {
  long long ranks = 0;
  long long rows = 0;  // of all ranks
  long long save = -1;
};

void check(bool is_done, const std::string& path) {
  require<std::runtime_error>(is_done, path, ": ", std::string(std::strerror(errno)));
}

std::string file_of(const std::string& folder, std::int64_t save, int rank) {
  return folder + "/rank-" + std::to_string(rank) + "." + std::to_string(save);
}

Manifest read_manifest(const std::string& folder) {
  const std::string path = folder + "/manifest";
  std::ifstream file(path);
  check(file.is_open(), path);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  long long ranks = 0, rows = 0, save = 0;
  const int found = std::sscanf(text.c_str(), kManifest, &ranks, &rows, &save);
  require<std::runtime_error>(found == 3, path, ": not a manifest of this version");
  return {ranks, rows, save};
}

// Makes what was written to a file or a folder last.
void sync(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  check(file >= 0, path);
  const bool is_synced = fsync(file) == 0;
  close(file);
  check(is_synced, path);
}

void write_manifest(const std::string& folder, const Manifest& manifest) {
  const std::string beside = folder + "/manifest.new";
  char text[200];
  std::snprintf(text, sizeof text, kManifest, manifest.ranks, manifest.rows, manifest.save);
  std::ofstream file(beside);
  file << text;
  file.close();
  check(!file.fail(), beside);
  sync(beside);
  std::filesystem::rename(beside, folder + "/manifest");
  sync(folder);
}

}  // namespace

ShardedCollection ShardedCollection::load(MPI_Comm ranks, const std::string& folder,
                                          const QxOptions& options, std::int64_t round_bytes) {
  const Communicator all(ranks);
  const auto manifest = all.from_root([&] {
    const Manifest read = read_manifest(folder);
    require<std::runtime_error>(read.ranks == all.size(), folder, " was saved by ", read.ranks,
                                " ranks, and there are ", all.size());
    return read;
  });
  std::string path;
  all.together([&] { path = file_of(folder, manifest.save, all.rank()); });
  return ShardedCollection(ranks, options, path.c_str(), manifest.rows, round_bytes);
}

void ShardedCollection::save(const std::string& folder) const {
  check_whole();
  const Manifest before = ranks_.from_root([&] {
    return std::filesystem::exists(folder + "/manifest") ? read_manifest(folder) : Manifest();
  });
  const Manifest manifest = {ranks_.size(), rows_, before.save + 1};
  ranks_.together([&] {
    std::filesystem::create_directories(folder);
    const std::string path = file_of(folder, manifest.save, ranks_.rank());
    call(qx_collection_save(own_.get(), nullptr, path.c_str(), nullptr, nullptr));
  });
  ranks_.together([&] {
    if (ranks_.is_root()) write_manifest(folder, manifest);
  });
  ranks_.together([&] {
    for (int rank = 0; rank < before.ranks; ++rank) {
      std::remove(file_of(folder, before.save, rank).c_str());  // or another rank has
    }
  });
}

}  // namespace qx::mpi
