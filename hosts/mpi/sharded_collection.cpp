#include "sharded_collection.hpp"

#include <numeric>

#include "rows.hpp"

namespace qx::mpi {
namespace {

// What a round may bring to one rank, below what MPI counts: rows of all ranks, one too many each.
constexpr std::int64_t kMostReceived = std::int64_t{1} << 30;

std::string text_of_schema(const QxOptions& schema) {
  std::string text = std::to_string(schema.dim) + ' ' + std::to_string(schema.metric);
  for (std::int32_t i = 0; i < schema.n_columns; ++i) {
    text += ' ' + std::to_string(schema.columns[i].type) + schema.columns[i].name;
  }
  return text;
}

// Where the part of each rank begins, one part after the other.
std::vector<int> begins_of(const std::vector<int>& counts) {
  std::vector<int> begins(counts.size());
  std::exclusive_scan(counts.begin(), counts.end(), begins.begin(), 0);
  return begins;
}

}  // namespace

// ---- Creation ----

ShardedCollection::ShardedCollection(MPI_Comm ranks, const QxOptions& options,
                                     std::int64_t round_bytes)
    : ShardedCollection(ranks, options, nullptr, 0, round_bytes) {}

ShardedCollection::ShardedCollection(MPI_Comm ranks, const QxOptions& options, const char* file,
                                     std::int64_t rows, std::int64_t round_bytes)
    : ranks_(ranks), round_bytes_(round_bytes), rows_(rows) {
  std::string schema;
  ranks_.together([&] {
    QxCollection* made = nullptr;
    call(file == nullptr ? qx_collection_new(&options, &made)
                         : qx_collection_load(file, &options, nullptr, nullptr, &made));
    own_.reset(made);
    qx_collection_schema(made, &schema_);
    require(schema_.id_kind == QX_NUMBERS, "the ids are texts, and must be numbers");
    schema = text_of_schema(schema_);
  });
  const std::vector<char> of_root = ranks_.shared(std::span<const char>(schema));
  ranks_.together([&] {
    require(std::ranges::equal(schema, of_root),
            "dim, metric or columns differ from those of rank 0");
  });
  const std::int64_t found = ranks_.sum(qx_collection_count(own_.get(), nullptr));
  require<std::runtime_error>(found == rows, "the files have ", found, " rows, and the manifest ",
                              rows);
}

void ShardedCollection::call(std::int32_t status) {
  if (status == QX_OK) return;
  if (status == QX_OUT_OF_MEMORY) throw std::bad_alloc();
  const char* const message = qx_collection_message();
  if (status == QX_INVALID) throw std::invalid_argument(message);
  throw std::runtime_error(message);
}

// ---- What a rank has ----

// Saved files rely on it.
int ShardedCollection::owner_of(std::int64_t id) const {
  auto mixed = static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15u;
  mixed = (mixed ^ (mixed >> 32)) * 0xD6E8FEB86659FD93u;
  return static_cast<int>((mixed >> 32) % static_cast<std::uint64_t>(ranks_.size()));
}

void ShardedCollection::check_whole() const {
  require<std::logic_error>(!broken_, "a change has failed halfway; load or build anew");
}

std::int64_t ShardedCollection::count() const {
  check_whole();
  return rows_;
}

std::int64_t ShardedCollection::bytes() const {
  check_whole();
  QxCollectionStats stats;
  qx_collection_stats(own_.get(), &stats);
  return ranks_.sum(stats.bytes);
}

// ---- Changes ----

// A step of a change: where it fails on some rank, it may have been done on others.
template <typename Step>
void ShardedCollection::change_own(const Step& step) {
  broken_ = true;
  ranks_.together(step);
  rows_ = ranks_.sum(qx_collection_count(own_.get(), nullptr));
  broken_ = false;
}

void ShardedCollection::upsert(Ids ids, Floats vectors, Values values) {
  ranks_.is_root() ? upsert_local(ids, vectors, values) : upsert_local({}, {}, {});
}

void ShardedCollection::upsert_local(Ids ids, Floats vectors, Values values) {
  check_whole();
  const Rows rows{ids, vectors, values};
  ranks_.together([&] { check_rows(schema_, rows, kMostReceived / ranks_.size()); });
  std::vector<std::byte> received;
  std::size_t next = 0;
  bool is_begun = false;
  do {
    broken_ = is_begun;  // a round before this one has been made
    next = send_rows(rows, next, received);
    change_own([&] { call(UnpackedRows(schema_, received).upsert_into(own_.get())); });
    is_begun = true;
  } while (ranks_.sum(static_cast<std::int64_t>(ids.size() - next)) > 0);
}

// Sends rows from `next` on to their owners, as many as a round carries, and receives this rank's.
// Gives the first row that is left.
std::size_t ShardedCollection::send_rows(const Rows& rows, std::size_t next,
                                         std::vector<std::byte>& received) const {
  std::vector<int> counts, begins, received_counts, received_begins;
  std::vector<std::byte> sent;
  ranks_.together([&] {
    std::vector<std::vector<std::byte>> packed(at(ranks_.size()));
    received_counts.resize(packed.size());
    std::int64_t left = std::max<std::int64_t>(1, round_bytes_ / ranks_.size());
    for (; next < rows.ids.size() && left > 0; ++next) {
      std::vector<std::byte>& bytes = packed[at(owner_of(rows.ids[next]))];
      left += std::ssize(bytes);
      pack_row(schema_, rows, next, bytes);
      left -= std::ssize(bytes);
    }
    for (const std::vector<std::byte>& bytes : packed) {
      counts.push_back(static_cast<int>(bytes.size()));
      sent.insert(sent.end(), bytes.begin(), bytes.end());
    }
    begins = begins_of(counts);
  });
  MPI_Alltoall(counts.data(), 1, MPI_INT, received_counts.data(), 1, MPI_INT, ranks_.handle());
  ranks_.together([&] {
    received_begins = begins_of(received_counts);
    received.resize(at(received_begins.back()) + at(received_counts.back()));
  });
  MPI_Alltoallv(sent.data(), counts.data(), begins.data(), MPI_BYTE, received.data(),
                received_counts.data(), received_begins.data(), MPI_BYTE, ranks_.handle());
  return next;
}

std::int64_t ShardedCollection::remove(Ids ids) {
  check_whole();
  std::vector<std::int64_t> own = ranks_.shared(ids);
  std::erase_if(own, [&](std::int64_t id) { return owner_of(id) != ranks_.rank(); });
  const std::int64_t before = rows_;
  change_own([&] {
    call(qx_collection_remove(own_.get(), {std::ssize(own), own.data(), nullptr}, nullptr));
  });
  return before - rows_;
}

void ShardedCollection::compact() {
  check_whole();
  ranks_.together([&] { call(qx_collection_compact(own_.get(), nullptr, nullptr)); });
}

}  // namespace qx::mpi
