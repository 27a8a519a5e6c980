// Bytes are a file of a collection, whose digests are made to fit. What loads must be what its rows
// give when they are saved; the rest must be refused.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "files/format.h"
#include "fuzz/target.h"
#include "qx_collection.h"

namespace {

using namespace qx::collection;

// Writes the digest of the bytes from `first` on up to `end` there, if it has room.
void seal(std::string& file, std::uint64_t first, std::uint64_t end, std::uint64_t seed) {
  if (end > file.size() || file.size() - end < kDigestBytes) return;
  std::uint64_t digest = digest_of(file.data() + first, end - first, seed);
  turn_order(&digest, sizeof(digest), sizeof(digest));
  std::memcpy(file.data() + end, &digest, sizeof(digest));
}

void seal_arrays(std::string& file, const Header& header, std::uint64_t offset) {
  const auto rows = static_cast<std::uint64_t>(header.rows);
  const auto seal_array = [&](std::uint64_t bytes, std::uint64_t block_bytes) {
    while (bytes > 0 && offset < file.size()) {
      const std::uint64_t block = std::min(bytes, block_bytes);
      seal(file, offset, offset + block, offset);
      offset += block + kDigestBytes;
      bytes -= block;
    }
  };
  const auto row_bytes = static_cast<std::uint64_t>(header.dim) * sizeof(float);
  seal_array(rows * sizeof(std::uint64_t), kBlockBytes);
  seal_array(header.id_bytes, kBlockBytes);
  seal_array(rows * row_bytes, static_cast<std::uint64_t>(rows_of_block(header.dim)) * row_bytes);
  const auto lists = static_cast<std::uint64_t>(header.lists);
  seal_array(lists * row_bytes, kBlockBytes);
  seal_array(lists > 0 ? rows * sizeof(std::uint32_t) : 0, kBlockBytes);
  for (const ColumnHeader& column : header.columns) {
    ColumnArrays arrays;
    visit_arrays(column, header.rows, arrays,
                 [&](auto& array, std::uint64_t, std::uint64_t elements) {
                   seal_array(elements * sizeof(array[0]), kBlockBytes);
                 });
  }
}

void seal_all(std::string& file) {
  try {
    const std::size_t size = header_bytes_of(file.substr(0, kPrefixBytes), file.size());
    seal(file, 0, size - kDigestBytes, 0);
    seal_arrays(file, decode(file.substr(0, size), file.size()), size);
  } catch (const Error&) {
    // Then it will be refused.
  }
}

// A folder of this process.
struct Folder {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("qx_file_fuzz_" + std::to_string(getpid()));
  Folder() { std::filesystem::create_directory(path); }
  ~Folder() { std::filesystem::remove_all(path); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  static const Folder folder;
  const std::string path = folder.path / "file";
  std::string file(reinterpret_cast<const char*>(bytes), count);
  seal_all(file);
  std::filesystem::remove(path);
  std::ofstream(path, std::ios::binary) << file;
  QxOptions options = {};
  options.memory_limit = 1 << 24;
  options.threads = 1;
  QxCollection* loaded = nullptr;
  const std::int32_t status = qx_collection_load(path.c_str(), &options, nullptr, nullptr, &loaded);
  qx_test::require(status == QX_OK || status == QX_CORRUPT || status == QX_OUT_OF_MEMORY,
                   qx_collection_message());
  if (status != QX_OK) return 0;
  qx_test::require(qx_collection_save(loaded, nullptr, path.c_str(), nullptr, nullptr) == QX_OK,
                   qx_collection_message());
  qx_collection_free(loaded);
  std::ifstream in(path, std::ios::binary);
  qx_test::require(std::string(std::istreambuf_iterator<char>(in), {}) == file,
                   "what was loaded is saved as other bytes");
  return 0;
}
